using System;
using System.Diagnostics;
using System.Reflection;
using System.Threading;

using Norvale.Mavix;

// Programs that end in the middle of something.
internal static class ExitCases
{
    private const int LimitMs = 60000;

    private static void ExpectExit(string child)
    {
        string program = Assembly.GetExecutingAssembly().Location;
        string runtime = Environment.GetEnvironmentVariable("MAVIX_TEST_MONO") ?? "mono";
        ProcessStartInfo start = new ProcessStartInfo(runtime, program + " --child " + child) { UseShellExecute = false };
        using (Process process = Process.Start(start))
        {
            if (!process.WaitForExit(LimitMs))
            {
                process.Kill();
                throw new ExpectationException(child + " does not end");
            }
            Expect.Equal(ChildPrograms.Status, process.ExitCode, child);
        }
    }

    public static void WithAnOpenConnection()
    {
        ExpectExit("OpenConnection");
    }

    public static void AfterDisposing()
    {
        ExpectExit("Disposed");
    }

    public static void WhileEventsArrive()
    {
        ExpectExit("WhileEventsArrive");
    }

    public static void AfterANativeThreadThatRanHandlers()
    {
        ExpectExit("NativeThread");
    }

    public static void NoHandlerIsCalledOnceTheExitHasBegun()
    {
        ExpectExit("HandlerAtExit");
    }

    public static void FromInsideAHandler()
    {
        ExpectExit("InsideHandler");
    }

    public static void WhileAHandlerDoesNotReturn()
    {
        ExpectExit("StuckHandler");
    }

    public static void WhileAnotherThreadWaitsForAnAnswer()
    {
        ExpectExit("WaitingCall");
    }

    public static void WithAMessageThatWasJustAccepted()
    {
        ExpectExit("AcceptedMessage");
        Expect.Soon(() => ServiceControl.Records().Contains("\"payload\":\"6c617374\""), "the message arrived");
    }
}

internal static class ChildPrograms
{
    internal const int Status = 17;

    private static MavixConnection s_connection;
    private static bool s_isExiting;
    private static readonly ManualResetEvent s_inside = new ManualResetEvent(false);

    internal static int Run(string name)
    {
        s_connection = new MavixConnection(name != "NativeThread");
        EventCases.Settle(s_connection);
        switch (name)
        {
        case "OpenConnection":
            s_connection.DataReceived += (sender, arguments) => { };
            break;
        case "Disposed":
            s_connection.Dispose();
            break;
        case "WhileEventsArrive":
            Listen((sender, arguments) => s_inside.Set());
            ServiceControl.EmitBurst("Data", 1, (uint)Settings.Scaled(20000));
            s_inside.WaitOne();
            break;
        case "NativeThread":
            Listen((sender, arguments) => s_inside.Set());
            // The runtime would wait for the thread at its end.
            using (new NativeLoop())
            {
                ServiceControl.EmitBurst("Data", 1, (uint)Settings.Scaled(20000));
                s_inside.WaitOne();
            }
            break;
        case "HandlerAtExit":
            Listen((sender, arguments) =>
            {
                s_inside.Set();
                if (Volatile.Read(ref s_isExiting))
                    NativeLibrary._exit(1);
            });
            AppDomain.CurrentDomain.ProcessExit += (sender, arguments) =>
            {
                Volatile.Write(ref s_isExiting, true);
                Thread.Sleep(100);
            };
            new Thread(() => ServiceControl.EmitBurst("Data", 1, 20000)) { IsBackground = true }.Start();
            s_inside.WaitOne();
            break;
        case "InsideHandler":
            Listen((sender, arguments) => Environment.Exit(Status));
            ServiceControl.EmitBurst("Data", 1, 10);
            Thread.Sleep(Timeout.Infinite);
            break;
        case "StuckHandler":
            Listen((sender, arguments) =>
            {
                s_inside.Set();
                Thread.Sleep(Timeout.Infinite);
            });
            ServiceControl.EmitBurst("Data", 1, 10);
            s_inside.WaitOne();
            break;
        case "WaitingCall":
            Thread caller = new Thread(CallSlowly) { IsBackground = true };
            caller.Start();
            s_inside.WaitOne();
            break;
        case "AcceptedMessage":
            s_connection.CallAsync(CallCases.Interface, 1, new byte[] { 0x6c, 0x61, 0x73, 0x74 });
            break;
        default:
            return 1;
        }
        return Status;
    }

    private static void Listen(EventHandler<MavixEventArgs> handler)
    {
        s_connection.DataReceived += handler;
        s_connection.Subscribe(MavixEventType.Data, 1);
        EventCases.Settle(s_connection);
    }

    // At its end the runtime waits for threads in native code.
    private static void CallSlowly()
    {
        s_inside.Set();
        using (MessageBuffer milliseconds = new MessageBuffer().PushInt32(2000))
            s_connection.Call(CallCases.Behaviours, CallCases.Delay, milliseconds);
    }
}
