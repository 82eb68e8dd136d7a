// A tour of the C# assembly: one program opens a session with the service, calls it, receives its events, is refused,
// sees it restart, shares a value, and closes the session. Run it with the stand-in service:
//
//     mavix-sandbox --private-run --sim-option=--respawn -- mono Tour.exe
//
// Exit status 0 when every step held.

using System;
using System.Diagnostics;
using System.IO;
using System.Text;
using System.Threading;

using Norvale.Mavix;

internal static class Tour
{
    // Any interface answers with what it was sent, except the stand-in's own, whose function codes are behaviours.
    private const string InterfaceName = "com.norvale.IAVControl";
    private const string BehaviourInterface = "com.norvale.ISimTest";
    private const short AnyFunction = 1;
    private const short RefusingFunction = 2;

    private const int HandleFirst = 1;
    private const short HandleSecond = 42;
    private const int EventKinds = 3;
    private static readonly TimeSpan EventLimit = TimeSpan.FromSeconds(10);

    private static int Main()
    {
        try
        {
            Console.WriteLine("1. We make a connection. It connects to the bus in the background.");
            using (MavixConnection connection = new MavixConnection())
            {
                Console.WriteLine("2. We open a session twice, as two components would. The service sees one.");
                Session first = Session.Open();
                Session second = Session.Open();
                ShowSessions("open");
                Call(connection);
                CallWithoutWaiting(connection);
                ReceiveEvents(connection);
                BeRefused(connection);
                OutliveTheService(connection);
                ShareAValue();
                Console.WriteLine("9. We close the session twice. The service sees the last close.");
                first.Close();
                ShowSessions("open");
                second.Close();
                ShowSessions("closed");
            }
            Console.WriteLine("That was the tour: every step held.");
            return 0;
        }
        catch (Exception exception)
        {
            Console.WriteLine();
            Console.WriteLine("The tour ends here: {0}", exception.Message);
            return 1;
        }
    }

    private static void Require(bool holds, string otherwise)
    {
        if (!holds)
            throw new InvalidOperationException(otherwise + ".");
    }

    // Prints what the service says about its sessions; ours has to be in that state.
    private static void ShowSessions(string state)
    {
        string text = Session.GetSessionsInfo();
        Console.WriteLine("   The service says about its sessions:");
        Console.WriteLine("   {0}", text.TrimEnd());
        string expected = "process " + Process.GetCurrentProcess().Id + ": session " + state + "\n";
        Require(text.Contains(expected), "the service sees our session otherwise");
    }

    private static void CallAndCheck(MavixConnection connection, string text)
    {
        byte[] answer = connection.Call(InterfaceName, AnyFunction, Encoding.UTF8.GetBytes(text));
        string answered = Encoding.UTF8.GetString(answer);
        Require(answered == text, "the answer is not what the service was sent");
        Console.WriteLine("   We sent \"{0}\", it answered \"{1}\".", text, answered);
    }

    private static void Call(MavixConnection connection)
    {
        Console.WriteLine("3. We call the service and wait for its answer. It is process {0}.", ServiceControl.ProcessId());
        CallAndCheck(connection, "Is anybody there?");
    }

    private static void CallWithoutWaiting(MavixConnection connection)
    {
        const string text = "Please tune to channel 7";
        Console.WriteLine("4. We call it again, but do not wait.");
        using (MessageBuffer arguments = new MessageBuffer().PushText(text))
            connection.CallAsync(InterfaceName, AnyFunction, arguments);
        Require(ServiceControl.WaitForAsyncCall(Encoding.UTF8.GetBytes(text)), "the call did not reach the service");
        Console.WriteLine("   The service confirms that it received \"{0}\".", text);
    }

    private static void ReceiveEvents(MavixConnection connection)
    {
        string[] payloads = { "antenna connected", "channel 7, evening news", "page 100" };
        using (CountdownEvent missing = new CountdownEvent(EventKinds))
        {
            EventHandler<MavixEventArgs> handler = (sender, arguments) =>
            {
                string payload = arguments.Read().ReadText();
                Console.WriteLine("   {0} event, id {1}: \"{2}\"", arguments.Type, arguments.Id, payload);
                if (payload == payloads[arguments.Id])
                    missing.Signal();
            };
            Console.WriteLine("5. We ask for events of three types and add a handler for each.");
            connection.SignalReceived += handler;
            connection.ProgramReceived += handler;
            connection.TextDataReceived += handler;
            using (connection.Subscribe(MavixEventType.Signal, 0, HandleFirst, HandleSecond))
            using (connection.Subscribe(MavixEventType.Program, 1, HandleFirst, HandleSecond))
            using (connection.Subscribe(MavixEventType.TextData, 2, HandleFirst, HandleSecond))
            {
                // The bus handles what one connection sends in its order: after an answer, it has the rules.
                CallAndCheck(connection, "Now tell us the news");
                Console.WriteLine("   The service emits them. They arrive on a thread of the library:");
                string[] types = { "Signal", "Program", "TextData" };
                for (int at = 0; at < EventKinds; ++at)
                    ServiceControl.Emit(types[at], at, HandleFirst, (uint)HandleSecond, Encoding.UTF8.GetBytes(payloads[at]));
                Require(missing.Wait(EventLimit), "not every event arrived as it was sent");
            }
            connection.SignalReceived -= handler;
            connection.ProgramReceived -= handler;
            connection.TextDataReceived -= handler;
        }
    }

    private static void BeRefused(MavixConnection connection)
    {
        Console.WriteLine("6. We ask for something that the service refuses.");
        try
        {
            connection.Call(BehaviourInterface, RefusingFunction, new byte[0]);
        }
        catch (MavixException exception)
        {
            Console.WriteLine("   The call throws: {0}", exception.Message);
            return;
        }
        throw new InvalidOperationException("the service did not refuse.");
    }

    private static void OutliveTheService(MavixConnection connection)
    {
        Console.WriteLine("7. The service restarts under our feet.");
        int pid = ServiceControl.Restart();
        Console.WriteLine("   It is process {0} now. We call it as if nothing had happened.", pid);
        CallAndCheck(connection, "Are you well again?");
    }

    private static void ShareAValue()
    {
        string name = "mavix-tour-" + Process.GetCurrentProcess().Id;
        Console.WriteLine("8. We write a value into a cache, which any process may read without asking the service.");
        using (Cache writer = Cache.OpenWriter(name))
        using (Cache reader = Cache.OpenReader(name))
        {
            if (MayWrite(writer, "42 percent"))
                ReadAndReset(writer, reader, "42 percent");
        }
        // A cache outlives its processes. This one is not to.
        foreach (string file in new[] { "/dev/shm/" + name, "/run/" + name + "_cache_lock" })
        {
            if (File.Exists(file))
                File.Delete(file);
        }
    }

    private static bool MayWrite(Cache writer, string value)
    {
        try
        {
            writer.Set("volume", 1, Encoding.UTF8.GetBytes(value));
            return true;
        }
        catch (MavixException exception)
        {
            Console.WriteLine("   We may not: {0}.", exception.Message);
            return false;
        }
    }

    private static void ReadAndReset(Cache writer, Cache reader, string value)
    {
        byte[] read = reader.Get("volume", 1);
        Require(read != null && Encoding.UTF8.GetString(read) == value, "the cache has another value");
        Console.WriteLine("   A reader finds \"{0}\".", Encoding.UTF8.GetString(read));
        Require(writer.Reset("volume", 1), "the value could not be reset");
        Require(reader.Get("volume", 1) == null, "a value is still there after its reset");
        Console.WriteLine("   We reset it, and the reader finds nothing.");
    }
}
