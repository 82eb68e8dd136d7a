using System;
using System.Runtime.InteropServices;
using System.Threading;

namespace Norvale.Mavix
{
    // A native handle that shares the process's client. Calls that use it keep it alive.
    internal sealed class ClientHandle : SafeHandle
    {
        private ClientHandle()
            : base(IntPtr.Zero, true)
        {
        }

        public override bool IsInvalid
        {
            get { return handle == IntPtr.Zero; }
        }

        protected override bool ReleaseHandle()
        {
            NativeMethods.TCIPCConnection_Destroy(handle);
            return true;
        }
    }

    // The one native handle of the process: making a second one would take all callbacks away. Any thread.
    internal static class NativeClient
    {
        private static readonly TimeSpan ExitLimit = TimeSpan.FromSeconds(2);

        private static readonly object s_lock = new object();
        private static ClientHandle s_handle;

        // Makes the handle on first use.
        internal static ClientHandle Handle
        {
            get
            {
                ClientHandle handle = Volatile.Read(ref s_handle);
                return handle ?? Create();
            }
        }

        private static ClientHandle Create()
        {
            lock (s_lock)
            {
                if (s_handle != null)
                    return s_handle;
                ClientHandle handle = NewHandle();
                if (handle.IsInvalid)
                    throw new MavixException(MavixFailure.NoClient, "the process has no client of the service");
                AppDomain.CurrentDomain.ProcessExit += OnProcessExit;
                Volatile.Write(ref s_handle, handle);
                return handle;
            }
        }

        private static ClientHandle NewHandle()
        {
            byte[] name = NativeText.FromArgument("Norvale.Mavix", "name");
            return NativeMethods.TCIPCConnection_Create(name, NativeText.FromArgument("", "version"), false);
        }

        // While the runtime ends no event may enter it, and the client ends in order unless it is in use.
        private static void OnProcessExit(object sender, EventArgs arguments)
        {
            EventRelay.Close();
            EventPump.Stop(ExitLimit);
            // Takes all callbacks away, and waits for none.
            NewHandle().Dispose();
            if (EventRelay.IsRunning)
                GC.SuppressFinalize(s_handle);
            else
                s_handle.Dispose();
        }
    }
}
