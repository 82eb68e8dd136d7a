using System;
using System.Globalization;
using System.IO;
using System.Runtime.CompilerServices;
using System.Threading;

using Norvale.Mavix;

// Many of everything, while the garbage collector runs.
internal static class LifetimeCases
{
    private const int CollectionPeriod = 100;

    // What a process holds on to, in bytes.
    internal sealed class Memory
    {
        // A leak of the smallest object of 10,000 is more than the first two.
        private const long ToleratedManaged = 131072;
        private const long ToleratedNative = 131072;
        private const long ToleratedResident = 16 * 1024 * 1024;

        private readonly long m_managed;
        private readonly long m_native;
        private readonly long m_resident;

        private Memory()
        {
            GC.Collect();
            GC.WaitForPendingFinalizers();
            m_managed = GC.GetTotalMemory(true);
            // Tells nothing with a sanitizer.
            m_native = (long)NativeLibrary.mallinfo2().Used;
            m_resident = long.Parse(File.ReadAllText("/proc/self/statm").Split(' ')[1], CultureInfo.InvariantCulture) *
                Environment.SystemPageSize;
        }

        // The first time, looking and telling need memory themselves.
        internal static Memory Now()
        {
            new Memory().Tell("at first", new Memory());
            return new Memory();
        }

        internal void ExpectFlat(string what)
        {
            Memory now = new Memory();
            Tell(what, now);
            Expect.True(now.m_managed - m_managed < ToleratedManaged, "managed memory is flat");
            Expect.True(now.m_native - m_native < ToleratedNative, "native memory is flat");
            Expect.True(now.m_resident - m_resident < ToleratedResident, "memory is flat");
        }

        private void Tell(string what, Memory now)
        {
            Console.WriteLine("        {0}: bytes more: managed {1}, native {2}, resident {3}", what,
                now.m_managed - m_managed, now.m_native - m_native, now.m_resident - m_resident);
        }
    }

    // Each thread delivers numbers, and a handler sees every one of them in order.
    private sealed class Delivery
    {
        private readonly MavixEventType m_type;
        private readonly int m_count;
        private int m_next;
        private int m_wrong;

        internal Delivery(MavixEventType type, int count)
        {
            m_type = type;
            m_count = count;
        }

        internal bool IsWhole
        {
            get { return m_next == m_count && m_wrong == 0; }
        }

        internal void OnEvent(object sender, MavixEventArgs arguments)
        {
            int number = arguments.Id;
            if (number != m_next || arguments.Payload.Length != 4 || arguments.Read().ReadInt32() != number)
                ++m_wrong;
            ++m_next;
            if (number % CollectionPeriod == CollectionPeriod - 1)
                GC.Collect();
        }

        internal void Run()
        {
            for (int number = 0; number < m_count; ++number)
                NativeLibrary.Deliver(m_type, number, BitConverter.GetBytes(number));
        }
    }

    private static void DeliverFromTwoThreads(MavixConnection connection, int count)
    {
        Delivery data = new Delivery(MavixEventType.Data, count / 2);
        Delivery program = new Delivery(MavixEventType.Program, count / 2);
        connection.DataReceived += data.OnEvent;
        connection.ProgramReceived += program.OnEvent;
        Thread second = new Thread(program.Run);
        second.Start();
        data.Run();
        second.Join();
        connection.DataReceived -= data.OnEvent;
        connection.ProgramReceived -= program.OnEvent;
        Expect.True(data.IsWhole && program.IsWhole, "nothing is lost");
    }

    public static void AMillionCallbacksWithACollectionAfterEveryHundred()
    {
        using (MavixConnection connection = new MavixConnection(false))
        {
            DeliverFromTwoThreads(connection, Settings.Scaled(100000));
            Memory before = Memory.Now();
            DeliverFromTwoThreads(connection, Settings.Scaled(1000000));
            before.ExpectFlat("callbacks");
        }
    }

    private static void ReceiveBurst(MavixConnection connection, int count)
    {
        int received = 0;
        int wrong = 0;
        EventHandler<MavixEventArgs> handler = (sender, arguments) =>
        {
            wrong += arguments.Read().ReadInt32() == received ? 0 : 1;
            Volatile.Write(ref received, received + 1);
            if (received % CollectionPeriod == 0)
                GC.Collect();
        };
        connection.DataReceived += handler;
        using (connection.Subscribe(MavixEventType.Data, 1))
        {
            EventCases.Settle(connection);
            ServiceControl.EmitBurst("Data", 1, (uint)count);
            Expect.Soon(() => Volatile.Read(ref received) == count, "every event arrives");
        }
        connection.DataReceived -= handler;
        Expect.Equal(0, wrong, "events out of order");
    }

    public static void EventsOfTheServiceOnANativeThreadWithCollections()
    {
        using (new NativeLoop())
        using (MavixConnection connection = new MavixConnection(false))
            ReceiveBurst(connection, Settings.Scaled(20000));
    }

    public static void EventsOfTheServiceOnTheAssemblysThreadWithCollections()
    {
        using (MavixConnection connection = new MavixConnection())
            ReceiveBurst(connection, Settings.Scaled(20000));
    }

    public static void CallsWithCollections()
    {
        using (MavixConnection connection = new MavixConnection())
        {
            for (int at = 0; at < Settings.Scaled(2000); ++at)
            {
                byte[] arguments = BitConverter.GetBytes(at);
                Expect.Bytes(arguments, connection.Call(CallCases.Interface, 1, arguments));
                if (at % CollectionPeriod == 0)
                    GC.Collect();
            }
        }
    }

    private static void CreateAndDestroyHandles(int count)
    {
        for (int at = 0; at < count; ++at)
        {
            IntPtr handle = NativeLibrary.TCIPCConnection_Create(null, null, false);
            Expect.True(handle != IntPtr.Zero, "a handle");
            NativeLibrary.TCIPCConnection_Destroy(handle);
        }
    }

    public static void TenThousandNativeHandlesComeAndGo()
    {
        CreateAndDestroyHandles(Settings.Scaled(1000));
        Memory before = Memory.Now();
        CreateAndDestroyHandles(Settings.Scaled(10000));
        before.ExpectFlat("handles");
    }

    // Every one of them hears an event before it goes.
    private static void CreateAndDisposeConnections(int count)
    {
        int events = 0;
        for (int at = 0; at < count; ++at)
        {
            using (MavixConnection connection = new MavixConnection(at % 2 == 0))
            {
                connection.DataReceived += (sender, arguments) => ++events;
                connection.ProgramReceived += (sender, arguments) => ++events;
                NativeLibrary.Deliver(MavixEventType.Data, at, new byte[] { 1 });
                if (at % CollectionPeriod == 0)
                {
                    connection.Subscribe(MavixEventType.Data, at);
                    connection.Call(CallCases.Interface, 1).Dispose();
                    GC.Collect();
                }
            }
            NativeLibrary.Deliver(MavixEventType.Data, at, new byte[] { 1 });
        }
        Expect.Equal(count, events, "events");
    }

    public static void TenThousandConnectionsComeAndGo()
    {
        CreateAndDisposeConnections(Settings.Scaled(1000));
        Memory before = Memory.Now();
        CreateAndDisposeConnections(Settings.Scaled(10000));
        before.ExpectFlat("connections");
    }

    [MethodImpl(MethodImplOptions.NoInlining)]
    private static void ForgetBuffers(int count)
    {
        for (int at = 0; at < count; ++at)
            new MessageBuffer().Grow(1000);
    }

    public static void BuffersThatNobodyDisposesOfAreCollected()
    {
        int count = Settings.Scaled(100000);
        for (int round = 0; round < 2; ++round)
        {
            ForgetBuffers(count / 10);
            GC.Collect();
            GC.WaitForPendingFinalizers();
        }
        Memory before = Memory.Now();
        for (int round = 0; round < 10; ++round)
        {
            ForgetBuffers(count / 10);
            GC.Collect();
            GC.WaitForPendingFinalizers();
        }
        before.ExpectFlat("buffers");
    }

    [MethodImpl(MethodImplOptions.NoInlining)]
    private static void ListenWithoutAName(int[] events)
    {
        MavixConnection connection = new MavixConnection(false);
        connection.TextDataReceived += (sender, arguments) =>
        {
            ++events[0];
            ((MavixConnection)sender).Dispose();
        };
    }

    public static void AConnectionWithHandlersIsNotCollected()
    {
        int[] events = new int[1];
        ListenWithoutAName(events);
        GC.Collect();
        GC.WaitForPendingFinalizers();
        GC.Collect();
        NativeLibrary.Deliver(MavixEventType.TextData, 1, new byte[0]);
        NativeLibrary.Deliver(MavixEventType.TextData, 1, new byte[0]);
        Expect.Equal(1, events[0], "events");
    }
}
