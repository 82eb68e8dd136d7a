#include "CachePeer.h"

#include "Peer.h"

#include "Handles.h"
#include "IPCCache.h"

#include <cstring>
#include <fcntl.h>
#include <lmdb.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace MavixBench {

namespace {

constexpr const char* key = "value";
constexpr std::size_t pageSize = 4096;

// Of the process that began: the readers beside it use its caches.
std::string baseName;

std::string LockPath() {
    return "/run/" + baseName + "_cache_lock";
}
std::string FloorPath() {
    return "/dev/shm/" + baseName + "-floor";
}
std::string LmdbPath() {
    return "/dev/shm/" + baseName + "-lmdb";
}

class TCOurCache final : public TICachePeer {
public:
    TCOurCache(std::size_t size, bool isWriter)
        : m_name(baseName + std::to_string(size)),
          m_cache(baseName, isWriter ? IPCCache::AccessType::Write : IPCCache::AccessType::Read),
          m_reader(baseName, IPCCache::AccessType::Read) {
        // A value keeps its size.
        if (isWriter) {
            m_cache.resetData(m_name);
        }
    }

    bool Read(std::vector<char>& value) override {
        return m_reader.getData(m_name, value.data(), value.size());
    }
    void Write(const std::vector<char>& value) override {
        m_cache.setData(m_name, value.data(), value.size());
    }

private:
    const std::string m_name;
    IPCCache m_cache;
    IPCCache m_reader;
};

class TCFloor final : public TICachePeer {
public:
    explicit TCFloor(std::size_t size)
        : m_file(open(FloorPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)), m_size(size) {
        if (m_file.Get() < 0 || ftruncate(m_file.Get(), pageSize) != 0) {
            Fail("no shared memory");
        }
        m_page =
            static_cast<char*>(mmap(nullptr, pageSize, PROT_READ | PROT_WRITE, MAP_SHARED, m_file.Get(), 0));
        if (m_page == MAP_FAILED) {
            Fail("no shared memory");
        }
    }
    ~TCFloor() override { munmap(m_page, pageSize); }
    TCFloor(const TCFloor&) = delete;
    TCFloor& operator=(const TCFloor&) = delete;

    bool Read(std::vector<char>& value) override {
        flock(m_file.Get(), LOCK_SH);
        std::memcpy(value.data(), m_page, m_size);
        flock(m_file.Get(), LOCK_UN);
        return true;
    }
    void Write(const std::vector<char>& value) override {
        flock(m_file.Get(), LOCK_EX);
        std::memcpy(m_page, value.data(), m_size);
        flock(m_file.Get(), LOCK_UN);
    }

private:
    const MavixApiLite::TCFileDescriptor m_file;
    const std::size_t m_size;
    char* m_page = nullptr;
};

void Check(int result, const char* what) {
    if (result != 0) {
        Fail(std::string(what) + ": " + mdb_strerror(result));
    }
}

// As fast as it can be: no file is synchronised, and one reading transaction is renewed again and again.
class TCLmdb final : public TICachePeer {
public:
    TCLmdb() {
        Check(mdb_env_create(&m_environment), "lmdb");
        mkdir(LmdbPath().c_str(), 0700);
        Check(mdb_env_open(m_environment, LmdbPath().c_str(), MDB_NOSYNC | MDB_WRITEMAP | MDB_NOTLS, 0600),
              "lmdb open");
        // Readers that were killed keep their places until somebody looks.
        int dead = 0;
        Check(mdb_reader_check(m_environment, &dead), "lmdb readers");
        MDB_txn* transaction = nullptr;
        Check(mdb_txn_begin(m_environment, nullptr, 0, &transaction), "lmdb begin");
        Check(mdb_dbi_open(transaction, nullptr, 0, &m_database), "lmdb database");
        Check(mdb_txn_commit(transaction), "lmdb commit");
        Check(mdb_txn_begin(m_environment, nullptr, MDB_RDONLY, &m_reading), "lmdb begin");
        mdb_txn_reset(m_reading);
    }
    ~TCLmdb() override {
        mdb_txn_abort(m_reading);
        mdb_env_close(m_environment);
    }
    TCLmdb(const TCLmdb&) = delete;
    TCLmdb& operator=(const TCLmdb&) = delete;

    bool Read(std::vector<char>& value) override {
        Check(mdb_txn_renew(m_reading), "lmdb renew");
        MDB_val name = m_Key();
        MDB_val found = {};
        const bool isThere =
            mdb_get(m_reading, m_database, &name, &found) == 0 && found.mv_size == value.size();
        if (isThere) {
            std::memcpy(value.data(), found.mv_data, found.mv_size);
        }
        mdb_txn_reset(m_reading);
        return isThere;
    }
    void Write(const std::vector<char>& value) override {
        MDB_txn* transaction = nullptr;
        Check(mdb_txn_begin(m_environment, nullptr, 0, &transaction), "lmdb begin");
        MDB_val name = m_Key();
        MDB_val data = {value.size(), const_cast<char*>(value.data())};
        Check(mdb_put(transaction, m_database, &name, &data, 0), "lmdb put");
        Check(mdb_txn_commit(transaction), "lmdb commit");
    }

private:
    static MDB_val m_Key() { return {std::strlen(key), const_cast<char*>(key)}; }

    MDB_env* m_environment = nullptr;
    MDB_dbi m_database = 0;
    MDB_txn* m_reading = nullptr;
};

} // namespace

TICachePeer::~TICachePeer() = default;

std::unique_ptr<TICachePeer> OpenCache(const std::string& peer, std::size_t size, bool isWriter) {
    if (peer == "ours") {
        return std::make_unique<TCOurCache>(size, isWriter);
    }
    if (peer == "floor") {
        return std::make_unique<TCFloor>(size);
    }
    if (peer == "lmdb") {
        return std::make_unique<TCLmdb>();
    }
    Fail("no such cache: " + peer);
}

TCCacheFiles::TCCacheFiles() {
    baseName = "mavix-bench-" + std::to_string(getpid());
}

TCCacheFiles::~TCCacheFiles() {
    unlink(LockPath().c_str());
    unlink(FloorPath().c_str());
    unlink((LmdbPath() + "/data.mdb").c_str());
    unlink((LmdbPath() + "/lock.mdb").c_str());
    rmdir(LmdbPath().c_str());
    shm_unlink(("/" + baseName).c_str());
}

} // namespace MavixBench
