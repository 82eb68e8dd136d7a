using System;
using System.Collections.Generic;

using Norvale.Mavix;

// The library's functions, called as the assembly calls them.
internal static class NativeCases
{
    private const int Data = (int)MavixEventType.Data;

    // Native code holds pointers to these.
    private static readonly List<NativeLibrary.Callback> s_rooted = new List<NativeLibrary.Callback>();
    private static readonly List<string> s_arrived = new List<string>();

    private static NativeLibrary.Callback Keep(string name)
    {
        NativeLibrary.Callback callback = (id, payload) =>
            s_arrived.Add(name + " " + id + " " + NativeLibrary.TCMessageBuffer_PayloadSize(payload));
        s_rooted.Add(callback);
        return callback;
    }

    private static void ExpectArrived(params string[] expected)
    {
        Expect.Equal(string.Join(", ", expected), string.Join(", ", s_arrived));
        s_arrived.Clear();
    }

    private static IntPtr Create()
    {
        return NativeLibrary.TCIPCConnection_Create(null, null, false);
    }

    public static void FreeMemoryOfNullDoesNothing()
    {
        NativeLibrary.TCFreeMemory(IntPtr.Zero);
    }

    public static void DestroyOfNullDoesNothing()
    {
        NativeLibrary.TCIPCConnection_Destroy(IntPtr.Zero);
    }

    public static void AMessageOfSizeZeroReachesTheCallbackWithAnEmptyBuffer()
    {
        IntPtr handle = Create();
        NativeLibrary.TCPIConnection_SetCallbackFunction(handle, Data, Keep("data"));
        NativeLibrary.TCPIConnection_Callback(Data, 1, new byte[1], 0);
        NativeLibrary.TCPIConnection_Callback(Data, 2, null, 5);
        ExpectArrived("data 1 0", "data 2 0");
        NativeLibrary.TCIPCConnection_Destroy(handle);
    }

    public static void ASecondCreateClearsTheCallbacksOfTheFirst()
    {
        IntPtr first = Create();
        NativeLibrary.TCPIConnection_SetCallbackFunction(first, Data, Keep("data"));
        IntPtr second = Create();
        Expect.True(first != second, "handles differ");
        NativeLibrary.TCPIConnection_Callback(Data, 1, null, 0);
        ExpectArrived();
        NativeLibrary.TCIPCConnection_Destroy(first);
        NativeLibrary.TCPIConnection_SetCallbackFunction(second, Data, Keep("second"));
        NativeLibrary.TCPIConnection_Callback(Data, 1, null, 0);
        ExpectArrived("second 1 0");
        NativeLibrary.TCIPCConnection_Destroy(second);
    }

    public static void AnUnsetOrReplacedCallbackIsNeverCalledAgain()
    {
        IntPtr handle = Create();
        NativeLibrary.TCPIConnection_SetCallbackFunction(handle, Data, Keep("replaced"));
        NativeLibrary.TCPIConnection_SetCallbackFunction(handle, Data, Keep("unset"));
        NativeLibrary.TCPIConnection_Callback(Data, 1, new byte[3], 3);
        ExpectArrived("unset 1 3");
        NativeLibrary.TCPIConnection_UnsetCallbackFunction(handle, Data);
        NativeLibrary.TCPIConnection_Callback(Data, 2, null, 0);
        ExpectArrived();
        NativeLibrary.TCIPCConnection_Destroy(handle);
    }

    public static void OfTheTypesAboveTheElevenNothingIsEverRelayed()
    {
        IntPtr handle = Create();
        using (MavixConnection connection = new MavixConnection())
        {
            foreach (int type in new[] { 11, 12, 13 })
            {
                NativeLibrary.TCPIConnection_SetCallbackFunction(handle, type, Keep("type " + type));
                Expect.True(NativeLibrary.TCIPCConnection_AddMatchRule(handle, type, 1, 0, 0), "a rule");
            }
            EventCases.Settle(connection);
            foreach (int type in new[] { 11, 12, 13 })
                ServiceControl.Emit(type.ToString(), 1, 0, 0, new byte[] { 1 });
            using (EventCases.Collector collector = new EventCases.Collector(connection))
                collector.Take();
            ExpectArrived();
            foreach (int type in new[] { 11, 12, 13 })
            {
                NativeLibrary.TCIPCConnection_RemoveMatchRule(handle, type, 1, 0, 0);
                NativeLibrary.TCPIConnection_UnsetCallbackFunction(handle, type);
            }
        }
        NativeLibrary.TCIPCConnection_Destroy(handle);
    }
}
