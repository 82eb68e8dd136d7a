using System;
using System.Runtime.InteropServices;

namespace Norvale.Mavix
{
    // A native callback for events. The buffer is valid during the call only.
    [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
    internal delegate void NativeCallback(int messageId, IntPtr payload);

    // What a debug trace tells the service about its caller.
    [StructLayout(LayoutKind.Sequential)]
    internal struct NativeDebugInfo
    {
        public int StructSize;
        public IntPtr CallerInfo;
        public int TraceParam;
    }

    // The library's functions. Texts are bytes in UTF-8 with a zero behind them. A native boolean is one byte,
    // and the others of the register that it travels in have no meaning.
    internal static class NativeMethods
    {
        private const string Library = "libmavix-api.so.1";
        private const string GLib = "libglib-2.0.so.0";

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern ClientHandle TCIPCConnection_Create(byte[] first, byte[] second,
            [MarshalAs(UnmanagedType.I1)] bool flag);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void TCIPCConnection_Destroy(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCIPCConnection_Call(ClientHandle handle, byte[] interfaceName, short functionCode,
            BufferHandle input, BufferHandle output);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCIPCConnection_CallAsync(ClientHandle handle, byte[] interfaceName, short functionCode,
            BufferHandle input);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCIPCConnection_WaitForCreateInterface(ClientHandle handle, byte[] interfaceName);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCIPCConnection_AddMatchRule(ClientHandle handle, int type, int messageId,
            int handleFirst, short handleSecond);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCIPCConnection_RemoveMatchRule(ClientHandle handle, int type, int messageId,
            int handleFirst, short handleSecond);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void TCPIConnection_SetCallbackFunction(ClientHandle handle, int type,
            NativeCallback callback);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void TCFreeMemory(IntPtr memory);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern BufferHandle TCMessageBuffer_Create();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void TCMessageBuffer_Destroy(IntPtr buffer);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCMessageBuffer_Reserve(BufferHandle buffer, uint count);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCMessageBuffer_Resize(BufferHandle buffer, uint count);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCMessageBuffer_Clean(BufferHandle buffer);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCMessageBuffer_PushChar(BufferHandle buffer, byte value);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCMessageBuffer_PushShort(BufferHandle buffer, short value);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCMessageBuffer_PushInt(BufferHandle buffer, int value);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCMessageBuffer_PushLongLong(BufferHandle buffer, long value);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCMessageBuffer_PushConcatenated(BufferHandle buffer, UIntPtr size, byte[] data);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCMessageBuffer_PushBuffer(BufferHandle buffer, BufferHandle other);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCMessageBuffer_ReadShort(BufferHandle buffer, out short value, uint offset);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCMessageBuffer_ReadInt(BufferHandle buffer, out int value, uint offset);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCMessageBuffer_ReadLongLong(BufferHandle buffer, out long value, uint offset);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCMessageBuffer_ReadConcatenated(BufferHandle buffer, UIntPtr size,
            [Out] byte[] data, uint offset);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCMessageBuffer_WriteInt(BufferHandle buffer, int value, int offset);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCMessageBuffer_WriteLongLong(BufferHandle buffer, long value, int offset);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool TCMessageBuffer_WriteConcatenated(BufferHandle buffer, UIntPtr size, byte[] data,
            int offset);

        // Of a buffer that this assembly does not own.
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr TCMessageBuffer_Payload(IntPtr buffer);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern UIntPtr TCMessageBuffer_PayloadSize(IntPtr buffer);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern UIntPtr TCMessageBuffer_PayloadSize(BufferHandle buffer);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr TCMessageBuffer_Sender(BufferHandle buffer);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr TCMessageBuffer_SenderAppName(BufferHandle buffer);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int SessionControl__Open();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int SessionControl__Close();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int SessionControl__OpenDebugTrace(long traceId, ref NativeDebugInfo info);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int SessionControl__CloseDebugTrace(long traceId);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int SessionControl__GetSessionsDebugInfo(out IntPtr text);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int SessionControl__IsMavixTerminated(out int isTerminated);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern CacheHandle IPCCache_CreateReader(byte[] cacheName);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern CacheHandle IPCCache_CreateWriter(byte[] cacheName);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool IPCCache_Destroy(IntPtr cache);

        // An unsigned long is as wide as a pointer.
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool IPCCache_GetData(CacheHandle cache, byte[] name, UIntPtr id, out IntPtr data,
            out UIntPtr size);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void IPCCache_SetData(CacheHandle cache, byte[] name, UIntPtr id, byte[] data, UIntPtr size);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool IPCCache_ResetData(CacheHandle cache, byte[] name, UIntPtr id);

        [DllImport(GLib, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int g_main_context_iteration(IntPtr context, int mayBlock);

        [DllImport(GLib, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void g_main_context_wakeup(IntPtr context);
    }
}
