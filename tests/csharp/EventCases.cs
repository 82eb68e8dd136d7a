using System;
using System.Collections.Concurrent;
using System.Collections.Generic;
using System.Diagnostics;
using System.Linq;
using System.Text;
using System.Threading;

using Norvale.Mavix;

internal static class EventCases
{
    private static readonly EventHandler<MavixEventArgs> Ignore = (sender, arguments) => { };

    // Keeps what arrives. The id 999999 of the type Ht ends what was emitted before it.
    internal sealed class Collector : IDisposable
    {
        private const int LastId = 999999;

        private readonly MavixConnection m_connection;
        private readonly MavixSubscription m_last;
        private readonly ConcurrentQueue<MavixEventArgs> m_events = new ConcurrentQueue<MavixEventArgs>();
        private int m_ends;

        internal Collector(MavixConnection connection)
        {
            m_connection = connection;
            m_last = connection.Subscribe(MavixEventType.Ht, LastId);
            connection.HtReceived += OnEnd;
        }

        internal void Keep(object sender, MavixEventArgs arguments)
        {
            m_events.Enqueue(arguments);
        }

        // What has arrived since the last time.
        internal List<MavixEventArgs> Take()
        {
            int ends = Volatile.Read(ref m_ends);
            Settle(m_connection);
            ServiceControl.Emit("Ht", LastId, 0, 0, new byte[0]);
            Expect.Soon(() => Volatile.Read(ref m_ends) != ends, "the last event arrives");
            List<MavixEventArgs> events = new List<MavixEventArgs>();
            MavixEventArgs next;
            while (m_events.TryDequeue(out next))
                events.Add(next);
            return events;
        }

        internal int[] TakeIds()
        {
            return Take().Select(arguments => arguments.Id).ToArray();
        }

        public void Dispose()
        {
            m_connection.HtReceived -= OnEnd;
            m_last.Dispose();
        }

        private void OnEnd(object sender, MavixEventArgs arguments)
        {
            if (arguments.Id == LastId)
                Interlocked.Increment(ref m_ends);
        }
    }

    // The bus has handled what the process has sent.
    internal static void Settle(MavixConnection connection)
    {
        connection.Call(CallCases.Interface, 1).Dispose();
    }

    private static void EmitData(int id, params byte[] payload)
    {
        ServiceControl.Emit("Data", id, 0, 0, payload);
    }

    private static void ExpectIds(Collector collector, params int[] expected)
    {
        Expect.Equal(string.Join(" ", expected), string.Join(" ", collector.TakeIds()), "ids");
    }

    public static void EachOfTheElevenTypesArrives()
    {
        using (MavixConnection connection = new MavixConnection())
        using (Collector collector = new Collector(connection))
        {
            connection.SignalReceived += collector.Keep;
            connection.PipelineEventReceived += collector.Keep;
            connection.DataReceived += collector.Keep;
            connection.ProgramReceived += collector.Keep;
            connection.SectionReceived += collector.Keep;
            connection.TextDataReceived += collector.Keep;
            connection.DsmReceived += collector.Keep;
            connection.CopyProtectionReceived += collector.Keep;
            connection.PesDataReceived += collector.Keep;
            connection.ExPesDataReceived += collector.Keep;
            connection.HtReceived += collector.Keep;
            Array types = Enum.GetValues(typeof(MavixEventType));
            Expect.Equal(11, types.Length, "types");
            foreach (MavixEventType type in types)
                connection.Subscribe(type, 100 + (int)type, 1, (short)type);
            Settle(connection);
            foreach (MavixEventType type in types)
                ServiceControl.Emit(((int)type).ToString(), 100 + (int)type, 1, (uint)type, new byte[] { (byte)type, 0, 255 });
            List<MavixEventArgs> events = collector.Take().Where(arguments => arguments.Id < 999).ToList();
            Expect.Equal(11, events.Count, "events");
            for (int at = 0; at < 11; ++at)
            {
                Expect.Equal((MavixEventType)at, events[at].Type);
                Expect.Equal(100 + at, events[at].Id);
                Expect.Bytes(new byte[] { (byte)at, 0, 255 }, events[at].Payload);
            }
        }
    }

    public static void AnEventWithoutPayloadIsEmpty()
    {
        using (MavixConnection connection = new MavixConnection())
        using (Collector collector = new Collector(connection))
        using (connection.Subscribe(MavixEventType.Data, 1))
        {
            connection.DataReceived += collector.Keep;
            EmitAfterSettling(connection, 1);
            Expect.Equal(0, collector.Take().Single().Payload.Length);
        }
    }

    private static void EmitAfterSettling(MavixConnection connection, int id, params byte[] payload)
    {
        Settle(connection);
        EmitData(id, payload);
    }

    public static void ThePayloadIsReadByAReaderAndMayBeKept()
    {
        using (MavixConnection connection = new MavixConnection())
        using (Collector collector = new Collector(connection))
        using (connection.Subscribe(MavixEventType.Data, 1))
        {
            connection.DataReceived += collector.Keep;
            EmitAfterSettling(connection, 1, 5, 0, 0, 0, 0x61);
            MessageReader reader = collector.Take().Single().Read();
            Expect.Equal(5, reader.ReadInt32());
            Expect.Equal("a", reader.ReadText());
        }
    }

    public static void OnlyWhatWasSubscribedToArrives()
    {
        using (MavixConnection connection = new MavixConnection())
        using (Collector collector = new Collector(connection))
        using (connection.Subscribe(MavixEventType.Data, 7, 1, 2))
        {
            connection.DataReceived += collector.Keep;
            Settle(connection);
            ServiceControl.Emit("Data", 8, 1, 2, new byte[0]);
            ServiceControl.Emit("Data", 7, 1, 3, new byte[0]);
            ServiceControl.Emit("Data", 7, 1, 2, new byte[] { 1 });
            Expect.Bytes(new byte[] { 1 }, collector.Take().Single().Payload);
        }
    }

    public static void TheSignOfTheSecondPartExtendsIntoTheFirst()
    {
        using (MavixConnection connection = new MavixConnection())
        using (Collector collector = new Collector(connection))
        using (connection.Subscribe(MavixEventType.Data, 1, 0, -1))
        {
            connection.DataReceived += collector.Keep;
            Settle(connection);
            ServiceControl.Emit("Data", 1, 0, 0xFFFF, new byte[] { 1 });
            ServiceControl.Emit("Data", 1, 0, 0xFFFFFFFF, new byte[] { 2 });
            Expect.Bytes(new byte[] { 2 }, collector.Take().Single().Payload);
        }
    }

    public static void AnEndedSubscriptionEndsItsEvents()
    {
        using (MavixConnection connection = new MavixConnection())
        using (Collector collector = new Collector(connection))
        {
            connection.DataReceived += collector.Keep;
            MavixSubscription ended = connection.Subscribe(MavixEventType.Data, 1);
            MavixSubscription goesOn = connection.Subscribe(MavixEventType.Data, 2);
            Expect.Equal(MavixEventType.Data, ended.Type);
            Expect.Equal(1, ended.Id);
            Expect.Equal(0, ended.HandleFirst);
            Expect.Equal(0, (int)ended.HandleSecond);
            ended.Dispose();
            ended.Dispose();
            Settle(connection);
            EmitData(1);
            EmitData(2);
            ExpectIds(collector, 2);
            goesOn.Dispose();
        }
    }

    public static void OfTwoEqualSubscriptionsOneGoesOn()
    {
        using (MavixConnection connection = new MavixConnection())
        using (Collector collector = new Collector(connection))
        {
            connection.DataReceived += collector.Keep;
            MavixSubscription first = connection.Subscribe(MavixEventType.Data, 1);
            MavixSubscription second = connection.Subscribe(MavixEventType.Data, 1);
            EmitAfterSettling(connection, 1);
            ExpectIds(collector, 1);
            first.Dispose();
            EmitAfterSettling(connection, 1);
            ExpectIds(collector, 1);
            second.Dispose();
            EmitAfterSettling(connection, 1);
            ExpectIds(collector);
        }
    }

    public static void ATypeThatIsNotRelayedCannotBeSubscribedTo()
    {
        using (MavixConnection connection = new MavixConnection())
        {
            foreach (int type in new[] { 11, 14, -1 })
                Expect.Throws<ArgumentOutOfRangeException>(() => connection.Subscribe((MavixEventType)type, 1));
        }
    }

    public static void ARemovedHandlerIsNeverCalledAgain()
    {
        using (MavixConnection connection = new MavixConnection())
        using (Collector collector = new Collector(connection))
        using (connection.Subscribe(MavixEventType.Data, 1))
        {
            connection.DataReceived += collector.Keep;
            EmitAfterSettling(connection, 1);
            ExpectIds(collector, 1);
            connection.DataReceived -= collector.Keep;
            EmitData(1);
            ExpectIds(collector);
            connection.DataReceived += collector.Keep;
            EmitData(1);
            ExpectIds(collector, 1);
        }
    }

    public static void ADisposedConnectionsHandlersAreNeverCalledAgain()
    {
        using (MavixConnection connection = new MavixConnection())
        using (Collector collector = new Collector(connection))
        using (connection.Subscribe(MavixEventType.Data, 1))
        {
            MavixConnection disposed = new MavixConnection();
            disposed.DataReceived += collector.Keep;
            disposed.Subscribe(MavixEventType.Data, 1);
            disposed.Dispose();
            EmitAfterSettling(connection, 1);
            ExpectIds(collector);
        }
    }

    public static void DisposingOfAConnectionEndsItsSubscriptions()
    {
        using (MavixConnection connection = new MavixConnection())
        using (Collector collector = new Collector(connection))
        {
            MavixConnection disposed = new MavixConnection();
            MavixSubscription subscription = disposed.Subscribe(MavixEventType.Data, 1);
            disposed.Dispose();
            subscription.Dispose();
            connection.DataReceived += collector.Keep;
            EmitAfterSettling(connection, 1);
            ExpectIds(collector);
        }
    }

    public static void EveryConnectionWithAHandlerGetsTheEventOnce()
    {
        using (MavixConnection first = new MavixConnection())
        using (MavixConnection second = new MavixConnection())
        using (Collector collector = new Collector(first))
        using (second.Subscribe(MavixEventType.Data, 1))
        {
            first.DataReceived += collector.Keep;
            second.DataReceived += collector.Keep;
            EmitAfterSettling(first, 1);
            ExpectIds(collector, 1, 1);
        }
    }

    public static void WhatAHandlerThrowsIsReportedAndKeepsTheEventFromNobody()
    {
        using (MavixConnection connection = new MavixConnection())
        using (MavixConnection other = new MavixConnection())
        using (Collector collector = new Collector(connection))
        using (connection.Subscribe(MavixEventType.Data, 1))
        {
            ConcurrentQueue<MavixUnobservedExceptionArgs> reports = new ConcurrentQueue<MavixUnobservedExceptionArgs>();
            connection.UnobservedException += (sender, arguments) => reports.Enqueue(arguments);
            connection.DataReceived += (sender, arguments) => { throw new InvalidOperationException("on purpose"); };
            connection.DataReceived += collector.Keep;
            other.DataReceived += collector.Keep;
            EmitAfterSettling(connection, 1);
            ExpectIds(collector, 1, 1);
            MavixUnobservedExceptionArgs report = reports.Single();
            Expect.Equal(MavixEventType.Data, report.Type);
            Expect.Equal(1, report.Id);
            Expect.Equal("on purpose", report.Exception.Message);
        }
    }

    // Keeps what goes to the trace.
    private sealed class TraceCollector : TraceListener
    {
        private readonly StringBuilder m_text = new StringBuilder();

        internal string Text
        {
            get
            {
                lock (m_text)
                    return m_text.ToString();
            }
        }

        public override void Write(string message)
        {
            lock (m_text)
                m_text.Append(message);
        }

        public override void WriteLine(string message)
        {
            Write(message + "\n");
        }
    }

    public static void WhatAHandlerThrowsAndNobodyWaitsForGoesToTheTrace()
    {
        TraceCollector trace = new TraceCollector();
        Trace.Listeners.Add(trace);
        using (MavixConnection connection = new MavixConnection())
        using (Collector collector = new Collector(connection))
        using (connection.Subscribe(MavixEventType.Data, 1))
        {
            connection.DataReceived += (sender, arguments) => { throw new InvalidOperationException("on purpose"); };
            connection.DataReceived += collector.Keep;
            EmitAfterSettling(connection, 1);
            ExpectIds(collector, 1);
        }
        Trace.Listeners.Remove(trace);
        Expect.True(trace.Text.Contains("a handler of Data has thrown: System.InvalidOperationException: on purpose"),
            "the trace has it: " + trace.Text);
    }

    public static void WhatAHandlerOfTheReportThrowsIsDropped()
    {
        using (MavixConnection throwing = new MavixConnection())
        using (MavixConnection connection = new MavixConnection())
        using (Collector collector = new Collector(connection))
        using (connection.Subscribe(MavixEventType.Data, 1))
        {
            throwing.UnobservedException += (sender, arguments) => { throw new InvalidOperationException("again"); };
            throwing.DataReceived += (sender, arguments) => { throw new InvalidOperationException("on purpose"); };
            connection.DataReceived += collector.Keep;
            EmitAfterSettling(connection, 1);
            ExpectIds(collector, 1);
        }
    }

    public static void AHandlerMayUseTheConnection()
    {
        using (MavixConnection connection = new MavixConnection())
        using (Collector collector = new Collector(connection))
        using (connection.Subscribe(MavixEventType.Data, 1))
        {
            byte[] answer = null;
            EventHandler<MavixEventArgs> handler = null;
            handler = (sender, arguments) =>
            {
                answer = connection.Call(CallCases.Interface, 1, arguments.Payload);
                connection.Subscribe(MavixEventType.Data, 2);
                connection.DataReceived -= handler;
                connection.DataReceived += collector.Keep;
                connection.ProgramReceived += Ignore;
                using (MavixConnection inside = new MavixConnection())
                    inside.DataReceived += Ignore;
            };
            connection.DataReceived += handler;
            EmitAfterSettling(connection, 1, 5);
            ExpectIds(collector);
            Expect.Bytes(new byte[] { 5 }, answer);
            EmitData(1);
            EmitData(2);
            ExpectIds(collector, 1, 2);
        }
    }

    public static void AHandlerMayDisposeOfItsConnection()
    {
        using (MavixConnection connection = new MavixConnection())
        using (Collector collector = new Collector(connection))
        using (connection.Subscribe(MavixEventType.Data, 1))
        {
            MavixConnection own = new MavixConnection();
            own.DataReceived += (sender, arguments) => own.Dispose();
            own.DataReceived += collector.Keep;
            EmitAfterSettling(connection, 1);
            ExpectIds(collector);
        }
    }

    public static void WithoutTheThreadNothingArrivesUntilTheProgramRunsTheContext()
    {
        using (MavixConnection connection = new MavixConnection(false))
        using (connection.Subscribe(MavixEventType.Data, 1))
        {
            int events = 0;
            connection.DataReceived += (sender, arguments) => ++events;
            EmitAfterSettling(connection, 1);
            // The answer to this call has come after the event.
            ServiceControl.Records();
            Settle(connection);
            Thread.Sleep(50);
            Expect.Equal(0, Volatile.Read(ref events), "events without the context");
            Expect.Soon(() =>
            {
                NativeLibrary.g_main_context_iteration(IntPtr.Zero, 0);
                return events == 1;
            }, "the event arrives in the program's own loop");
        }
    }

    public static void TheThreadRestsWhileNoConnectionWantsItAndComesBack()
    {
        for (int round = 0; round < 3; ++round)
        {
            WithoutTheThreadNothingArrivesUntilTheProgramRunsTheContext();
            AnEventWithoutPayloadIsEmpty();
        }
    }

    public static void ABurstArrivesWholeAndInOrder()
    {
        int count = Settings.Scaled(20000);
        using (MavixConnection connection = new MavixConnection())
        using (Collector collector = new Collector(connection))
        using (connection.Subscribe(MavixEventType.Data, 1))
        {
            connection.DataReceived += collector.Keep;
            Settle(connection);
            ServiceControl.EmitBurst("Data", 1, (uint)count);
            List<MavixEventArgs> events = collector.Take();
            Expect.Equal(count, events.Count, "events");
            for (int at = 0; at < count; ++at)
                Expect.Equal(at, events[at].Read().ReadInt32());
        }
    }

    public static void ASecondNativeCreateClearsTheCallbacksAndANewFirstHandlerBringsThemBack()
    {
        using (MavixConnection connection = new MavixConnection(false))
        {
            int events = 0;
            EventHandler<MavixEventArgs> handler = (sender, arguments) => ++events;
            connection.SectionReceived += handler;
            NativeLibrary.Deliver(MavixEventType.Section, 1, new byte[] { 1 });
            Expect.Equal(1, events, "before");
            IntPtr second = NativeLibrary.TCIPCConnection_Create(null, null, false);
            NativeLibrary.Deliver(MavixEventType.Section, 1, new byte[] { 1 });
            Expect.Equal(1, events, "after a second create");
            connection.SectionReceived -= handler;
            connection.SectionReceived += handler;
            NativeLibrary.Deliver(MavixEventType.Section, 1, new byte[] { 1 });
            Expect.Equal(2, events, "after adding the handler again");
            NativeLibrary.TCIPCConnection_Destroy(second);
        }
    }
}
