using System;
using System.Threading;

namespace Norvale.Mavix
{
    // The border: the library's threads enter managed code here, and no exception leaves it.
    internal static class EventRelay
    {
        internal const int TypeCount = (int)MavixEventType.Ht + 1;

        // Native code holds pointers to these: they are made once and live as long as the process.
        private static readonly NativeCallback[] s_callbacks = MakeCallbacks();

        private static readonly object s_lock = new object();
        private static MavixConnection[] s_listeners = new MavixConnection[0];
        private static int s_running;
        private static int s_closed;

        internal static bool IsRunning
        {
            get { return Volatile.Read(ref s_running) != 0; }
        }

        // No handler is called any more.
        internal static void Close()
        {
            Interlocked.Exchange(ref s_closed, 1);
        }

        // Has the library call for events of this type.
        internal static void Register(MavixEventType type)
        {
            NativeMethods.TCPIConnection_SetCallbackFunction(NativeClient.Handle, (int)type, s_callbacks[(int)type]);
        }

        internal static void Add(MavixConnection connection)
        {
            lock (s_lock)
            {
                if (Array.IndexOf(s_listeners, connection) >= 0)
                    return;
                MavixConnection[] listeners = new MavixConnection[s_listeners.Length + 1];
                s_listeners.CopyTo(listeners, 0);
                listeners[s_listeners.Length] = connection;
                Volatile.Write(ref s_listeners, listeners);
            }
        }

        internal static void Remove(MavixConnection connection)
        {
            lock (s_lock)
                Volatile.Write(ref s_listeners, Array.FindAll(s_listeners, other => other != connection));
        }

        private static NativeCallback[] MakeCallbacks()
        {
            NativeCallback[] callbacks = new NativeCallback[TypeCount];
            for (int at = 0; at < TypeCount; ++at)
            {
                MavixEventType type = (MavixEventType)at;
                callbacks[at] = (messageId, payload) => Relay(type, messageId, payload);
            }
            return callbacks;
        }

        private static void Relay(MavixEventType type, int messageId, IntPtr payload)
        {
            Interlocked.Increment(ref s_running);
            try
            {
                if (Volatile.Read(ref s_closed) == 0)
                    Deliver(type, messageId, payload);
            }
            finally
            {
                Interlocked.Decrement(ref s_running);
            }
        }

        private static void Deliver(MavixEventType type, int messageId, IntPtr payload)
        {
            MavixConnection[] listeners = Volatile.Read(ref s_listeners);
            MavixEventArgs arguments = null;
            foreach (MavixConnection listener in listeners)
            {
                try
                {
                    // The buffer is gone when this call returns.
                    if (arguments == null)
                        arguments = new MavixEventArgs(type, messageId, MessageBuffer.CopyOf(payload));
                    listener.Raise(arguments);
                }
                catch (Exception exception)
                {
                    listener.Report(type, messageId, exception);
                }
            }
        }
    }
}
