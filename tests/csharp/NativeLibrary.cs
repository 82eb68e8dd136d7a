using System;
using System.Runtime.InteropServices;

using Norvale.Mavix;

// The library's functions, for cases about them.
internal static class NativeLibrary
{
    [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
    internal delegate void Callback(int messageId, IntPtr payload);

    // What the C allocator has given out.
    [StructLayout(LayoutKind.Sequential)]
    internal struct MallocInfo
    {
        internal UIntPtr Arena;
        internal UIntPtr FreeChunks;
        internal UIntPtr FastChunks;
        internal UIntPtr Maps;
        internal UIntPtr Mapped;
        internal UIntPtr Unused;
        internal UIntPtr FastFree;
        internal UIntPtr Used;
        internal UIntPtr Free;
        internal UIntPtr Releasable;
    }

    private const string Mavix = "libmavix-api.so.1";
    private const string GLib = "libglib-2.0.so.0";

    // Hands over an event as the client does.
    internal static void Deliver(MavixEventType type, int id, byte[] payload)
    {
        TCPIConnection_Callback((int)type, id, payload, payload.Length);
    }

    [DllImport(Mavix)]
    internal static extern IntPtr TCIPCConnection_Create(byte[] first, byte[] second,
        [MarshalAs(UnmanagedType.I1)] bool flag);

    [DllImport(Mavix)]
    internal static extern void TCIPCConnection_Destroy(IntPtr handle);

    [DllImport(Mavix)]
    [return: MarshalAs(UnmanagedType.I1)]
    internal static extern bool TCIPCConnection_AddMatchRule(IntPtr handle, int type, int messageId, int handleFirst,
        short handleSecond);

    [DllImport(Mavix)]
    [return: MarshalAs(UnmanagedType.I1)]
    internal static extern bool TCIPCConnection_RemoveMatchRule(IntPtr handle, int type, int messageId, int handleFirst,
        short handleSecond);

    [DllImport(Mavix)]
    internal static extern void TCPIConnection_SetCallbackFunction(IntPtr handle, int type, Callback callback);

    [DllImport(Mavix)]
    internal static extern void TCPIConnection_UnsetCallbackFunction(IntPtr handle, int type);

    [DllImport(Mavix)]
    internal static extern void TCPIConnection_Callback(int type, int messageId, byte[] data, int size);

    [DllImport(Mavix)]
    internal static extern UIntPtr TCMessageBuffer_PayloadSize(IntPtr buffer);

    [DllImport(Mavix)]
    internal static extern void TCFreeMemory(IntPtr memory);

    [DllImport(Mavix)]
    internal static extern IntPtr IPCCache_CreateWriter(byte[] cacheName);

    [DllImport(Mavix)]
    [return: MarshalAs(UnmanagedType.I1)]
    internal static extern bool IPCCache_Destroy(IntPtr cache);

    [DllImport(Mavix)]
    internal static extern void IPCCache_SetData(IntPtr cache, byte[] name, UIntPtr id, byte[] data, UIntPtr size);

    [DllImport(GLib)]
    internal static extern int g_main_context_iteration(IntPtr context, int mayBlock);

    [DllImport(GLib)]
    internal static extern IntPtr g_main_loop_new(IntPtr context, int isRunning);

    [DllImport(GLib)]
    internal static extern void g_main_loop_quit(IntPtr loop);

    [DllImport(GLib)]
    internal static extern void g_main_loop_unref(IntPtr loop);

    [DllImport(GLib)]
    internal static extern int g_main_loop_is_running(IntPtr loop);

    [DllImport(GLib)]
    internal static extern IntPtr g_thread_new(byte[] name, IntPtr function, IntPtr data);

    [DllImport(GLib)]
    internal static extern IntPtr g_thread_join(IntPtr thread);

    [DllImport("libc.so.6")]
    internal static extern int open(string path, int flags);

    [DllImport("libc.so.6")]
    internal static extern int close(int descriptor);

    [DllImport("libc.so.6")]
    internal static extern int flock(int descriptor, int operation);

    [DllImport("libc.so.6")]
    internal static extern void _exit(int status);

    [DllImport("libc.so.6")]
    internal static extern MallocInfo mallinfo2();

    [DllImport("libdl.so.2")]
    internal static extern IntPtr dlsym(IntPtr library, string name);

    [DllImport("libdl.so.2")]
    internal static extern IntPtr dlopen(string library, int flags);
}
