using System;
using System.Diagnostics;
using System.IO;
using System.Linq;
using System.Reflection;
using System.Runtime.CompilerServices;
using System.Text;
using System.Threading;

using Norvale.Mavix;

// A cache where the process may use one: in folders of its own in the place of /run and /dev/shm.
internal static class CacheCases
{
    private static int s_names;

    // A cache of a case's own, with a writer and a reader.
    internal sealed class Pair : IDisposable
    {
        internal readonly string Name = NewName();
        internal readonly Cache Writer;
        internal readonly Cache Reader;

        internal Pair()
        {
            Writer = Cache.OpenWriter(Name);
            Reader = Cache.OpenReader(Name);
        }

        public void Dispose()
        {
            Reader.Dispose();
            Writer.Dispose();
            Remove(Name);
        }
    }

    internal static string NewName()
    {
        return "csharp-" + Process.GetCurrentProcess().Id + "-" + Interlocked.Increment(ref s_names);
    }

    internal static string LockFile(string cache)
    {
        return "/run/" + cache + "_cache_lock";
    }

    internal static void Remove(string cache)
    {
        foreach (string path in new[] { LockFile(cache), "/dev/shm/" + cache })
        {
            if (File.Exists(path))
                File.Delete(path);
        }
    }

    private static byte[] Bytes(string text)
    {
        return Encoding.UTF8.GetBytes(text);
    }

    private static void ExpectNone(byte[] value)
    {
        Expect.True(value == null, "there is no value");
    }

    private static void ExpectNotStored(Action set, string reason)
    {
        MavixException exception = Expect.Throws<MavixException>(set);
        Expect.Equal(MavixFailure.CacheFailed, exception.Failure);
        Expect.True(exception.Message.Contains(reason), exception.Message + " says: " + reason);
    }

    public static void AValueIsReadAsItWasStored()
    {
        byte[][] values =
        {
            new byte[0], new byte[1], new byte[] { 0, 1, 0, 2, 0 }, Bytes("42 percent"),
            Enumerable.Range(0, 256).Select(number => (byte)number).ToArray(), new byte[3800]
        };
        foreach (byte[] value in values)
        {
            using (Pair pair = new Pair())
            {
                pair.Writer.Set("volume", value);
                Expect.Bytes(value, pair.Reader.Get("volume"));
                Expect.Bytes(value, pair.Writer.Get("volume"));
            }
        }
    }

    public static void ACacheTellsItsNameAndWhetherItCanWrite()
    {
        using (Pair pair = new Pair())
        {
            Expect.Equal(pair.Name, pair.Writer.Name);
            Expect.True(pair.Writer.CanWrite && !pair.Reader.CanWrite, "the writer can write, the reader cannot");
        }
    }

    public static void NamesAreTextsOfAnyLanguage()
    {
        using (Pair pair = new Pair())
        {
            foreach (string name in new[] { "", " ", "Lautstärke", "音量", "\U0001F4FA", "a/../b" })
            {
                pair.Writer.Set(name, Bytes("value of " + name));
                Expect.Bytes(Bytes("value of " + name), pair.Reader.Get(name));
            }
        }
    }

    public static void IdsTellValuesOfANameApart()
    {
        uint[] ids = { 0, 1, 65535, 65536, 0x00030005, uint.MaxValue };
        using (Pair pair = new Pair())
        {
            pair.Writer.Set("a", Bytes("alone"));
            foreach (uint id in ids)
                pair.Writer.Set("a", id, BitConverter.GetBytes(id));
            foreach (uint id in ids)
                Expect.Bytes(BitConverter.GetBytes(id), pair.Reader.Get("a", id));
            Expect.Bytes(Bytes("alone"), pair.Reader.Get("a"));
            Expect.Bytes(BitConverter.GetBytes(0x00030005), pair.Reader.Get("a3:5"));
            Expect.True(pair.Writer.Reset("a", 1), "there was one");
            ExpectNone(pair.Reader.Get("a", 1));
            Expect.Bytes(Bytes("alone"), pair.Reader.Get("a"));
        }
    }

    public static void AMissingValueIsNull()
    {
        using (Pair pair = new Pair())
        {
            pair.Writer.Set("volume", Bytes("1"));
            ExpectNone(pair.Reader.Get("Volume"));
            ExpectNone(pair.Reader.Get("volume", 1));
            ExpectNone(pair.Reader.Get("write_guard"));
        }
    }

    public static void ACacheThatWasNeverWrittenHasNoValues()
    {
        using (Pair pair = new Pair())
            ExpectNone(pair.Reader.Get("volume"));
    }

    public static void AReaderMayComeBeforeItsWriter()
    {
        string name = NewName();
        using (Cache reader = Cache.OpenReader(name))
        {
            ExpectNone(reader.Get("volume"));
            Expect.True(!File.Exists("/dev/shm/" + name), "a reader makes no cache");
            using (Cache writer = Cache.OpenWriter(name))
                writer.Set("volume", Bytes("1"));
            Expect.Bytes(Bytes("1"), reader.Get("volume"));
        }
        Remove(name);
    }

    public static void ValuesOutliveThoseWhoOpenedTheCache()
    {
        using (Pair pair = new Pair())
        {
            using (Cache writer = Cache.OpenWriter(pair.Name))
                writer.Set("volume", Bytes("1"));
            using (Cache reader = Cache.OpenReader("/" + pair.Name))
                ExpectNone(Cache.OpenReader("no-" + pair.Name).Get("volume"));
            Expect.Bytes(Bytes("1"), pair.Reader.Get("volume"));
            Remove("no-" + pair.Name);
        }
    }

    public static void ResetTakesAValueAwayOnce()
    {
        using (Pair pair = new Pair())
        {
            pair.Writer.Set("volume", Bytes("1"));
            Expect.True(pair.Writer.Reset("volume"), "there was one");
            ExpectNone(pair.Reader.Get("volume"));
            Expect.True(!pair.Writer.Reset("volume"), "there was none any more");
            Expect.True(!pair.Writer.Reset("write_guard"), "the library's own stays");
            pair.Writer.Set("volume", Bytes("another length"));
            Expect.Bytes(Bytes("another length"), pair.Reader.Get("volume"));
        }
    }

    public static void AShorterValueReplacesTheBeginningOnly()
    {
        using (Pair pair = new Pair())
        {
            pair.Writer.Set("volume", Bytes("42 percent"));
            pair.Writer.Set("volume", Bytes("17"));
            Expect.Bytes(Bytes("17 percent"), pair.Reader.Get("volume"));
            pair.Writer.Set("volume", new byte[0]);
            Expect.Bytes(Bytes("17 percent"), pair.Reader.Get("volume"));
        }
    }

    public static void ALongerValueIsRefusedAndTheOldOneStays()
    {
        using (Pair pair = new Pair())
        {
            pair.Writer.Set("volume", 7, Bytes("42"));
            ExpectNotStored(() => pair.Writer.Set("volume", 7, Bytes("100")),
                "the value volume, id 7 was not stored in the cache " + pair.Name +
                ": the one that is there has only 2 bytes; reset it before");
            Expect.Bytes(Bytes("42"), pair.Reader.Get("volume", 7));
        }
    }

    public static void AValueWithoutRoomIsRefusedAndTheNextOneIsAlone()
    {
        using (Pair pair = new Pair())
        {
            foreach (int size in new[] { 4096, 100000, 20 * 1024 * 1024 })
            {
                pair.Writer.Set("volume", Bytes("1"));
                ExpectNotStored(() => pair.Writer.Set("large", new byte[size]), "there is no room for it");
                ExpectNone(pair.Reader.Get("volume"));
                pair.Writer.Set("channel", Bytes("7"));
                Expect.Bytes(Bytes("7"), pair.Reader.Get("channel"));
                ExpectNone(pair.Reader.Get("volume"));
            }
        }
    }

    public static void ANameWithoutRoomIsRefused()
    {
        using (Pair pair = new Pair())
        {
            foreach (int length in new[] { 5000, 65600, 70000 })
            {
                ExpectNotStored(() => pair.Writer.Set(new string('x', length), Bytes("1")), "there is no room for it");
                pair.Writer.Set("volume", Bytes("1"));
                Expect.Bytes(Bytes("1"), pair.Reader.Get("volume"));
            }
        }
    }

    public static void NativeCodeAndTheClassShareValues()
    {
        using (Pair pair = new Pair())
        {
            IntPtr native = NativeLibrary.IPCCache_CreateWriter(Bytes(pair.Name + "\0"));
            byte[] name = Bytes("volume\0");
            NativeLibrary.IPCCache_SetData(native, name, new UIntPtr(ulong.MaxValue), Bytes("alone"), (UIntPtr)5);
            NativeLibrary.IPCCache_SetData(native, name, new UIntPtr(0x00030005), Bytes("with id"), (UIntPtr)7);
            Expect.Bytes(Bytes("alone"), pair.Reader.Get("volume"));
            Expect.Bytes(Bytes("with id"), pair.Reader.Get("volume", 0x00030005));
            NativeLibrary.IPCCache_Destroy(native);
        }
    }

    // The other process answers each number with the next one, until a limit.
    public static void TwoProcessesShareACache()
    {
        string name = NewName();
        string answers = NewName();
        int rounds = Settings.Scaled(200);
        using (Cache writer = Cache.OpenWriter(name))
        using (Cache reader = Cache.OpenReader(answers))
        using (Process other = CacheProgram.Start(name, answers, rounds))
        {
            for (int round = 1; round <= rounds; ++round)
            {
                writer.Set("ask", 1, BitConverter.GetBytes(round));
                byte[] expected = BitConverter.GetBytes(-round);
                Expect.Soon(() => expected.SequenceEqual(reader.Get("answer") ?? new byte[0]), "the answer " + round);
            }
            Expect.True(other.WaitForExit(60000), "the other process ends");
            Expect.Equal(0, other.ExitCode, "its status");
            Expect.Bytes(BitConverter.GetBytes(-rounds), reader.Get("answer"));
        }
        Remove(name);
        Remove(answers);
    }

    // Every writer takes a key of its own, and every reader sees whole values only.
    public static void ThreadsShareAWriterAndAReader()
    {
        const int threads = 4;
        int rounds = Settings.Scaled(2000);
        using (Pair pair = new Pair())
        {
            int torn = 0;
            Exception thrown = null;
            Thread[] running = Enumerable.Range(0, 2 * threads).Select(index => new Thread(() =>
            {
                try
                {
                    for (int round = 0; round < rounds; ++round)
                    {
                        if (index < threads)
                            pair.Writer.Set("key", (uint)index, Enumerable.Repeat((byte)round, 64).ToArray());
                        byte[] value = pair.Reader.Get("key", (uint)(index % threads));
                        if (value != null && value.Any(part => part != value[0]))
                            Interlocked.Increment(ref torn);
                    }
                }
                catch (Exception exception)
                {
                    thrown = exception;
                }
            })).ToArray();
            foreach (Thread thread in running)
                thread.Start();
            foreach (Thread thread in running)
                thread.Join();
            Expect.True(thrown == null, "nothing is thrown: " + thrown);
            Expect.Equal(0, torn, "torn values");
            Expect.Bytes(Enumerable.Repeat((byte)(rounds - 1), 64).ToArray(), pair.Reader.Get("key", 0));
        }
    }

    public static void ACollectionDoesNotDisturbAReadThatWaitsForTheLock()
    {
        const int exclusive = 2;
        using (Pair pair = new Pair())
        {
            pair.Writer.Set("volume", Bytes("1"));
            int held = NativeLibrary.open(LockFile(pair.Name), 0);
            Expect.Equal(0, NativeLibrary.flock(held, exclusive), "the lock");
            byte[] value = null;
            Thread waiting = new Thread(() => value = pair.Reader.Get("volume"));
            waiting.Start();
            Expect.Soon(WaitsForALock, "a thread waits for the lock");
            for (int round = 0; round < 20; ++round)
                GC.Collect();
            Expect.True(!waiting.Join(0), "it waits");
            NativeLibrary.close(held);
            waiting.Join();
            Expect.Bytes(Bytes("1"), value);
        }
    }

    // Who waits for a lock stands with an arrow below its holder.
    private static bool WaitsForALock()
    {
        string process = " " + Process.GetCurrentProcess().Id + " ";
        return File.ReadAllLines("/proc/locks").Any(line => line.Contains("-> FLOCK") && line.Contains(process));
    }

    public static void AReaderCannotWrite()
    {
        using (Pair pair = new Pair())
        {
            pair.Writer.Set("volume", Bytes("1"));
            Expect.Throws<InvalidOperationException>(() => pair.Reader.Set("volume", Bytes("2")));
            Expect.Throws<InvalidOperationException>(() => pair.Reader.Set("volume", 1, Bytes("2")));
            Expect.Throws<InvalidOperationException>(() => pair.Reader.Reset("volume"));
            Expect.Throws<InvalidOperationException>(() => pair.Reader.Reset("volume", 1));
            Expect.Bytes(Bytes("1"), pair.Reader.Get("volume"));
        }
    }

    // Descriptors and mappings of a cache.
    private static int Held(string name)
    {
        int descriptors = Directory.GetFiles("/proc/self/fd").Length;
        return descriptors + File.ReadLines("/proc/self/maps").Count(line => line.Contains(name));
    }

    private static void OpenAndClose(string name, int count, bool disposes)
    {
        for (int at = 0; at < count; ++at)
        {
            Cache cache = at % 2 == 0 ? Cache.OpenWriter(name) : Cache.OpenReader(name);
            if (at % 2 == 0)
                cache.Set("number", BitConverter.GetBytes(at));
            cache.Get("number");
            if (disposes)
                cache.Dispose();
        }
    }

    public static void CachesComeAndGoWithoutATrace()
    {
        string name = NewName();
        OpenAndClose(name, Settings.Scaled(1000), true);
        int held = Held(name);
        LifetimeCases.Memory before = LifetimeCases.Memory.Now();
        OpenAndClose(name, Settings.Scaled(10000), true);
        before.ExpectFlat("caches");
        Expect.Equal(held, Held(name), "descriptors and mappings");
        Remove(name);
    }

    public static void CachesThatNobodyDisposesOfAreCollected()
    {
        string name = NewName();
        using (Cache first = Cache.OpenWriter(name))
            first.Set("number", BitConverter.GetBytes(0));
        int held = Held(name);
        for (int round = 0; round < 10; ++round)
        {
            ForgetCaches(name, 50);
            GC.Collect();
            GC.WaitForPendingFinalizers();
        }
        // What stands in a register or on the stack may keep one of them.
        Expect.True(Held(name) - held < 20, "they do not hold on to anything");
        Remove(name);
    }

    [MethodImpl(MethodImplOptions.NoInlining)]
    private static void ForgetCaches(string name, int count)
    {
        OpenAndClose(name, count, false);
    }

    public static void ManyReadsLeaveNoMemoryBehind()
    {
        using (Pair pair = new Pair())
        {
            pair.Writer.Set("volume", new byte[1000]);
            for (int at = 0; at < Settings.Scaled(1000); ++at)
                pair.Reader.Get("volume");
            LifetimeCases.Memory before = LifetimeCases.Memory.Now();
            for (int at = 0; at < Settings.Scaled(20000); ++at)
                pair.Reader.Get("volume");
            before.ExpectFlat("values");
        }
    }
}

// What a cache refuses in any process, whether that may use one or not.
internal static class CacheArgumentCases
{
    private static readonly Func<string, Cache>[] s_opens = { Cache.OpenReader, Cache.OpenWriter };

    private static void With(Action<Cache> action)
    {
        string name = CacheCases.NewName();
        foreach (Func<string, Cache> open in s_opens)
        {
            using (Cache cache = open(name))
                action(cache);
        }
        CacheCases.Remove(name);
    }

    public static void ACacheNameIsTheNameOfAFile()
    {
        foreach (Func<string, Cache> open in s_opens)
        {
            Expect.Equal("name", Expect.Throws<ArgumentNullException>(() => open(null)).ParamName);
            foreach (string name in new[] { "", "/", "a/b", "//a", "/a/", "..", "a..b", "/../a", "a\0b", new string('x', 245),
                "/" + new string('x', 245), new string('ä', 123) })
                Expect.Equal("name", Expect.Throws<ArgumentException>(() => open(name)).ParamName, name);
            foreach (string name in new[] { new string('x', 244), "/" + new string('x', 244), new string('ä', 122) })
            {
                open(name).Dispose();
                CacheCases.Remove(name.TrimStart('/'));
            }
        }
    }

    public static void AValuesNameIsAText()
    {
        With(cache =>
        {
            foreach (string name in new[] { null, "a\0b" })
            {
                Expect.Throws<ArgumentException>(() => cache.Get(name));
                Expect.Throws<ArgumentException>(() => cache.Get(name, 1));
                Expect.Throws<ArgumentException>(() => cache.Set(name, new byte[1]));
                Expect.Throws<ArgumentException>(() => cache.Set(name, 1, new byte[1]));
                Expect.Throws<ArgumentException>(() => cache.Reset(name));
                Expect.Throws<ArgumentException>(() => cache.Reset(name, 1));
            }
        });
    }

    public static void TheLibrarysOwnNameIsRefused()
    {
        With(cache => Expect.Equal("name",
            Expect.Throws<ArgumentException>(() => cache.Set("write_guard", new byte[4])).ParamName));
    }

    public static void AValueIsNotNull()
    {
        With(cache =>
        {
            Expect.Equal("value", Expect.Throws<ArgumentNullException>(() => cache.Set("volume", null)).ParamName);
            Expect.Equal("value", Expect.Throws<ArgumentNullException>(() => cache.Set("volume", 1, null)).ParamName);
        });
    }

    public static void AReaderCannotWriteWhereNobodyMay()
    {
        string name = CacheCases.NewName();
        using (Cache reader = Cache.OpenReader(name))
        {
            Expect.Throws<InvalidOperationException>(() => reader.Set("volume", new byte[1]));
            Expect.Throws<InvalidOperationException>(() => reader.Reset("volume"));
        }
        CacheCases.Remove(name);
    }

    public static void ADisposedCacheThrows()
    {
        With(cache =>
        {
            cache.Dispose();
            cache.Dispose();
            Expect.Throws<ObjectDisposedException>(() => cache.Get("volume"));
            Expect.Throws<ObjectDisposedException>(() => cache.Get("volume", 1));
            Expect.Throws<ObjectDisposedException>(() => cache.Set("volume", new byte[1]));
            Expect.Throws<ObjectDisposedException>(() => cache.Set("volume", 1, new byte[1]));
            Expect.Throws<ObjectDisposedException>(() => cache.Reset("volume"));
            Expect.Throws<ObjectDisposedException>(() => cache.Reset("volume", 1));
        });
    }

    public static void ACacheMayBeDisposedOfWhileThreadsUseIt()
    {
        string name = CacheCases.NewName();
        for (int round = 0; round < Settings.Scaled(100); ++round)
        {
            Cache cache = Cache.OpenReader(name);
            int ended = 0;
            Thread[] readers = Enumerable.Range(0, 3).Select(index => new Thread(() =>
            {
                try
                {
                    for (;;)
                        cache.Get("volume");
                }
                catch (ObjectDisposedException)
                {
                    Interlocked.Increment(ref ended);
                }
            })).ToArray();
            foreach (Thread reader in readers)
                reader.Start();
            cache.Dispose();
            foreach (Thread reader in readers)
                reader.Join();
            Expect.Equal(readers.Length, ended, "threads that were told");
        }
        CacheCases.Remove(name);
    }
}

// A cache that the process may not use: it may not write to /run.
internal static class CacheForbiddenCases
{
    public static void NothingIsStoredFoundOrRemoved()
    {
        using (Cache cache = Cache.OpenWriter("csharp-forbidden"))
        {
            MavixException exception = Expect.Throws<MavixException>(() => cache.Set("volume", new byte[1]));
            Expect.Equal(MavixFailure.CacheFailed, exception.Failure);
            Expect.Equal("the value volume was not stored in the cache csharp-forbidden: there is no room for it, or the " +
                "process may not use the cache", exception.Message);
            Expect.True(cache.Get("volume") == null, "there is no value");
            Expect.True(!cache.Reset("volume"), "there is none to remove");
        }
        Expect.True(!File.Exists(CacheCases.LockFile("csharp-forbidden")), "there is no lock file");
    }
}

// The other process: waits for each number in a cache and answers it, negated, in another one.
internal static class CacheProgram
{
    internal static Process Start(string asks, string answers, int rounds)
    {
        string program = Assembly.GetExecutingAssembly().Location;
        string runtime = Environment.GetEnvironmentVariable("MAVIX_TEST_MONO") ?? "mono";
        return Process.Start(new ProcessStartInfo(runtime,
            string.Join(" ", program, "--cache", asks, answers, rounds.ToString())) { UseShellExecute = false });
    }

    internal static int Run(string[] arguments)
    {
        int rounds = int.Parse(arguments[3]);
        using (Cache reader = Cache.OpenReader(arguments[1]))
        using (Cache writer = Cache.OpenWriter(arguments[2]))
        {
            for (int round = 1; round <= rounds; ++round)
            {
                byte[] wanted = BitConverter.GetBytes(round);
                if (!ServiceControl.Await(() => wanted.SequenceEqual(reader.Get("ask", 1) ?? new byte[0])))
                    return 1;
                writer.Set("answer", BitConverter.GetBytes(-round));
            }
        }
        return 0;
    }
}
