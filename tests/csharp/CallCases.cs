using System;
using System.Linq;
using System.Text;
using System.Threading.Tasks;

using Norvale.Mavix;

internal static class CallCases
{
    internal const string Interface = "com.norvale.ITest";
    internal const string Behaviours = "com.norvale.ISimTest";
    internal const short Echo = 0;
    internal const short Delay = 1;
    internal const short Refuse = 2;
    internal const short Broken = 3;
    internal const short BigReply = 10;

    public static void ABufferIsAnsweredWithABuffer()
    {
        using (MavixConnection connection = new MavixConnection())
        using (MessageBuffer arguments = new MessageBuffer().PushInt32(5).PushText("text"))
        using (MessageBuffer result = connection.Call(Interface, 1, arguments))
        {
            MessageReader reader = result.Read();
            Expect.Equal(5, reader.ReadInt32());
            Expect.Equal("text", reader.ReadText());
        }
    }

    public static void BytesAreAnsweredWithBytes()
    {
        using (MavixConnection connection = new MavixConnection())
        {
            foreach (int size in new[] { 0, 1, 65536, MavixConnection.MaximalArguments })
            {
                byte[] arguments = Enumerable.Repeat((byte)0xA5, size).ToArray();
                Expect.Bytes(arguments, connection.Call(Interface, -32768, arguments));
            }
        }
    }

    public static void NoArgumentsAreAnsweredWithNone()
    {
        using (MavixConnection connection = new MavixConnection())
        {
            using (MessageBuffer result = connection.Call(Interface, 1))
                Expect.Equal(0L, result.Length);
            Expect.Equal(0, connection.Call(Interface, 1, (byte[])null).Length);
        }
    }

    public static void ALargeResultArrivesWhole()
    {
        using (MavixConnection connection = new MavixConnection())
        using (MessageBuffer arguments = new MessageBuffer().PushInt32(1000000))
        using (MessageBuffer result = connection.Call(Behaviours, BigReply, arguments))
        {
            byte[] bytes = result.ToArray();
            Expect.Equal(1000000, bytes.Length);
            Expect.Equal(999999 % 256, (int)bytes[999999]);
        }
    }

    public static void ARefusalSaysWhichInterfaceFunctionAndReason()
    {
        using (MavixConnection connection = new MavixConnection())
        {
            MavixException exception = Expect.Throws<MavixException>(() => connection.Call(Behaviours, Refuse));
            Expect.Equal(MavixFailure.CallFailed, exception.Failure);
            Expect.Equal(Behaviours, exception.InterfaceName);
            Expect.Equal(Refuse, exception.FunctionCode.Value);
            Expect.Equal("com.norvale.ISimTest, function 2: the service refused the call, did not answer it well, or was " +
                "not reachable", exception.Message);
            Expect.True(exception.Message.EndsWith(exception.Reason, StringComparison.Ordinal), "the reason");
        }
    }

    public static void ABrokenAnswerIsAnException()
    {
        using (MavixConnection connection = new MavixConnection())
            Expect.Throws<MavixException>(() => connection.Call(Behaviours, Broken));
    }

    public static void AnInterfaceNameThatTheBusDoesNotAllowIsAnException()
    {
        using (MavixConnection connection = new MavixConnection())
        {
            foreach (string name in new[] { "", "nodot", "com..norvale", "com.norvale.Ä" })
                Expect.Throws<MavixException>(() => connection.Call(name, 1));
        }
    }

    public static void TooManyArgumentsAreRefusedBeforeAnythingIsSent()
    {
        using (MavixConnection connection = new MavixConnection())
        using (MessageBuffer arguments = new MessageBuffer().Grow(MavixConnection.MaximalArguments + 1))
        {
            MavixException exception = Expect.Throws<MavixException>(() => connection.Call(Interface, 1, arguments));
            Expect.Equal(MavixFailure.ArgumentsTooLarge, exception.Failure);
            exception = Expect.Throws<MavixException>(() => connection.CallAsync(Interface, 3, arguments));
            Expect.Equal(MavixFailure.ArgumentsTooLarge, exception.Failure);
            Expect.Equal(3, (int)exception.FunctionCode.Value);
        }
    }

    public static void ANullInterfaceNameNeverReachesTheLibrary()
    {
        using (MavixConnection connection = new MavixConnection())
        {
            Expect.Throws<ArgumentNullException>(() => connection.Call(null, 1));
            Expect.Throws<ArgumentNullException>(() => connection.CallAsync(null, 1));
            Expect.Throws<ArgumentNullException>(() => connection.CallTask(null, 1));
            Expect.Throws<ArgumentNullException>(() => connection.CallAsyncTask(null, 1));
            Expect.Throws<ArgumentNullException>(() => connection.WaitForInterface(null));
            Expect.Throws<ArgumentException>(() => connection.Call("com.norvale\0.ITest", 1));
        }
    }

    public static void ACallThatDoesNotWaitReachesTheService()
    {
        using (MavixConnection connection = new MavixConnection())
        {
            connection.CallAsync(Interface, 1, Encoding.UTF8.GetBytes("bytes"));
            using (MessageBuffer arguments = new MessageBuffer().PushText("buffer"))
                connection.CallAsync(Interface, 1, arguments);
            connection.CallAsyncTask(Interface, 1, Encoding.UTF8.GetBytes("bytes of a task")).Wait();
            using (MessageBuffer arguments = new MessageBuffer().PushText("buffer of a task"))
                connection.CallAsyncTask(Interface, 1, arguments).Wait();
            foreach (string text in new[] { "bytes", "buffer", "bytes of a task", "buffer of a task" })
                Expect.True(ServiceControl.WaitForAsyncCall(Encoding.UTF8.GetBytes(text)), text);
        }
    }

    public static void ATaskHasTheResultOrTheException()
    {
        using (MavixConnection connection = new MavixConnection())
        {
            Expect.Bytes(new byte[] { 1, 2 }, connection.CallTask(Interface, 1, new byte[] { 1, 2 }).Result);
            using (MessageBuffer result = connection.CallTask(Interface, 1).Result)
                Expect.Equal(0L, result.Length);
            AggregateException failure = Expect.Throws<AggregateException>(() => connection.CallTask(Behaviours, Refuse).Wait());
            Expect.True(failure.InnerException is MavixException, "the exception of the call");
            failure = Expect.Throws<AggregateException>(() => connection.CallAsyncTask("nodot", 1).Wait());
            Expect.Equal(MavixFailure.NotSent, ((MavixException)failure.InnerException).Failure);
        }
    }

    public static void AnInterfaceThatIsServedIsWaitedFor()
    {
        using (MavixConnection connection = new MavixConnection())
            Expect.True(connection.WaitForInterface("com.norvale.IAVControl"), "it is served");
    }

    public static void ManyThreadsCallAtOnce()
    {
        using (MavixConnection connection = new MavixConnection())
        {
            Task[] tasks = new Task[8];
            for (int at = 0; at < tasks.Length; ++at)
            {
                byte[] arguments = { (byte)at, 1, 2 };
                tasks[at] = Task.Run(() =>
                {
                    for (int call = 0; call < Settings.Scaled(200); ++call)
                        Expect.Bytes(arguments, connection.Call(Interface, 1, arguments));
                });
            }
            Task.WaitAll(tasks);
        }
    }

    public static void ADisposedConnectionCallsNoMore()
    {
        MavixConnection connection = new MavixConnection();
        connection.Dispose();
        connection.Dispose();
        Expect.Throws<ObjectDisposedException>(() => connection.Call(Interface, 1));
        Expect.Throws<ObjectDisposedException>(() => connection.CallAsync(Interface, 1));
        Expect.Throws<ObjectDisposedException>(() => connection.WaitForInterface(Interface));
        Expect.Throws<ObjectDisposedException>(() => connection.Subscribe(MavixEventType.Data, 1));
        Expect.Throws<ObjectDisposedException>(() => connection.DataReceived += (sender, arguments) => { });
    }

    public static void TwoConnectionsAreTheSameClient()
    {
        using (MavixConnection first = new MavixConnection())
        {
            MavixConnection second = new MavixConnection(false);
            first.Call(Interface, 1, new byte[] { 1 });
            second.Dispose();
            first.Call(Interface, 1, new byte[] { 2 });
        }
    }
}
