#ifndef MAVIX_TEST_PRIVATE_MOUNTS_H
#define MAVIX_TEST_PRIVATE_MOUNTS_H

namespace MavixTest {

// A mount namespace of our own; without privileges one inside a user namespace. False where the kernel allows
// neither. Call it before there are threads; children inherit it.
bool EnterPrivateMounts();

// The same with folders of our own in the place of /run and /dev/shm, so that caches are seen by this process
// and its children only. Does so once; false where it cannot be, or where nobody may give a file the owner of
// a lock file.
bool EnterPrivateCacheFolders();
constexpr const char* noCacheFoldersReason = "only root may give lock files their owner";

} // namespace MavixTest

#endif
