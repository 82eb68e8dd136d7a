using System;
using System.Diagnostics;
using System.Globalization;
using System.Runtime.InteropServices;
using System.Text;
using System.Threading;

// Steers the stand-in service from outside, the way a test does. A real service has nothing like it.
internal static class ServiceControl
{
    private const string Gio = "libgio-2.0.so.0";
    private const string GLib = "libglib-2.0.so.0";

    // Its two processes.
    internal const string Daemon = "com.norvale.Sim.Daemon";
    internal const string Lite = "com.norvale.Sim.Lite";

    private const int SystemBus = 1;
    private const int LimitMs = 30000;
    private const int RestartLimitMs = 10000;
    private const int PauseMs = 5;

    private static readonly Lazy<IntPtr> s_bus = new Lazy<IntPtr>(Connect);

    // Has it emit an event. Types go by name or number.
    internal static void Emit(string type, int id, uint handleHigh, uint handleLow, byte[] payload)
    {
        Order("Emit", Format("('{0}', {1}, uint32 {2}, uint32 {3}, {4}, '')", type, id, handleHigh, handleLow,
            Bytes(payload)));
    }

    // Has it emit events whose payloads of 4 bytes are the numbers from 0 on.
    internal static void EmitBurst(string type, int id, uint count)
    {
        Order("EmitBurst", Format("('{0}', {1}, uint32 0, uint32 0, uint32 0, uint32 {2}, uint32 4, '')", type, id, count));
    }

    // Has it answer calls of an interface's function as a function of its own test interface.
    internal static void SetReply(string interfaceName, short code, short behaviour, byte[] parameter,
        string process = Daemon)
    {
        Order("SetReply", Format("('{0}', int16 {1}, int16 {2}, {3})", interfaceName, code, behaviour, Bytes(parameter)),
            process);
    }

    internal static void ClearReplies(string process = Daemon)
    {
        Order("ClearReplies", "()", process);
    }

    // What it was asked, one JSON object a line.
    internal static string Records(string process = Daemon)
    {
        return Text(Call("Records", "()", process));
    }

    internal static void ClearRecords(string process = Daemon)
    {
        Order("ClearRecords", "()", process);
    }

    // Waits until it has a record of a call without reply from this process with these bytes.
    internal static bool WaitForAsyncCall(byte[] payload)
    {
        string hex = BitConverter.ToString(payload).Replace("-", "").ToLowerInvariant();
        string bytes = "\"payload\":\"" + hex + "\"";
        string process = Format("\"pid\":{0},", Process.GetCurrentProcess().Id);
        return Await(() => Array.Exists(Records().Split('\n'), line => line.Contains(bytes) && line.Contains(process) &&
            line.Contains("\"ok\":true") && line.Contains("\"noReply\":true")));
    }

    // The service's process; 0 when it does not run.
    internal static int ProcessId()
    {
        try
        {
            IntPtr reply = CallOf("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                "GetConnectionUnixProcessID", "('com.norvale.MavixAPI',)");
            return int.Parse(Print(reply).Split(' ', ',', ')')[1], CultureInfo.InvariantCulture);
        }
        catch (InvalidOperationException)
        {
            return 0;
        }
    }

    // Ends it and waits until a new process has taken its place, whose id is the result.
    internal static int Restart()
    {
        int before = ProcessId();
        int now = 0;
        Order("Exit", "(0,)");
        if (!Await(() => (now = ProcessId()) != 0 && now != before, RestartLimitMs))
            throw new InvalidOperationException("the service did not come back");
        return now;
    }

    internal static bool Await(Func<bool> condition, int limitMs = LimitMs)
    {
        Stopwatch clock = Stopwatch.StartNew();
        while (!condition())
        {
            if (clock.ElapsedMilliseconds > limitMs)
                return false;
            Thread.Sleep(PauseMs);
        }
        return true;
    }

    private static string Bytes(byte[] bytes)
    {
        return bytes.Length == 0 ? "@ay []" : "[byte 0x" + BitConverter.ToString(bytes).Replace("-", ", 0x") + "]";
    }

    private static string Format(string format, params object[] arguments)
    {
        return string.Format(CultureInfo.InvariantCulture, format, arguments);
    }

    private static byte[] Native(string text)
    {
        return Encoding.UTF8.GetBytes(text + "\0");
    }

    private static IntPtr Connect()
    {
        IntPtr error;
        IntPtr bus = g_bus_get_sync(SystemBus, IntPtr.Zero, out error);
        Require(bus, error, "connecting to the bus");
        return bus;
    }

    private static void Order(string method, string arguments, string process = Daemon)
    {
        g_variant_unref(Call(method, arguments, process));
    }

    private static IntPtr Call(string method, string arguments, string process)
    {
        return CallOf(process, "/com/norvale/Sim", "com.norvale.Sim", method, arguments);
    }

    // The reply, of which the caller releases one reference.
    private static IntPtr CallOf(string destination, string path, string interfaceName, string method, string arguments)
    {
        IntPtr error;
        IntPtr values = g_variant_parse(IntPtr.Zero, Native(arguments), IntPtr.Zero, IntPtr.Zero, out error);
        // The call takes the new values over.
        Require(values, error, arguments);
        IntPtr reply = g_dbus_connection_call_sync(s_bus.Value, Native(destination), Native(path), Native(interfaceName),
            Native(method), values, IntPtr.Zero, 0, LimitMs, IntPtr.Zero, out error);
        Require(reply, error, method);
        return reply;
    }

    private static void Require(IntPtr result, IntPtr error, string what)
    {
        if (result != IntPtr.Zero)
            return;
        // The text stands behind the domain and the code.
        string reason = Marshal.PtrToStringAnsi(Marshal.ReadIntPtr(error, 8));
        g_error_free(error);
        throw new InvalidOperationException(what + ": " + reason);
    }

    private static string Text(IntPtr reply)
    {
        IntPtr child = g_variant_get_child_value(reply, UIntPtr.Zero);
        string text = Marshal.PtrToStringAnsi(g_variant_get_string(child, IntPtr.Zero));
        g_variant_unref(child);
        g_variant_unref(reply);
        return text;
    }

    private static string Print(IntPtr reply)
    {
        IntPtr text = g_variant_print(reply, 1);
        string result = Marshal.PtrToStringAnsi(text);
        g_free(text);
        g_variant_unref(reply);
        return result;
    }

    [DllImport(Gio)]
    private static extern IntPtr g_bus_get_sync(int type, IntPtr cancellable, out IntPtr error);

    [DllImport(Gio)]
    private static extern IntPtr g_dbus_connection_call_sync(IntPtr connection, byte[] busName, byte[] path,
        byte[] interfaceName, byte[] method, IntPtr parameters, IntPtr replyType, int flags, int timeoutMs,
        IntPtr cancellable, out IntPtr error);

    [DllImport(GLib)]
    private static extern IntPtr g_variant_parse(IntPtr type, byte[] text, IntPtr limit, IntPtr end, out IntPtr error);

    [DllImport(GLib)]
    private static extern IntPtr g_variant_get_child_value(IntPtr value, UIntPtr index);

    [DllImport(GLib)]
    private static extern IntPtr g_variant_get_string(IntPtr value, IntPtr length);

    [DllImport(GLib)]
    private static extern IntPtr g_variant_print(IntPtr value, int typeAnnotate);

    [DllImport(GLib)]
    private static extern void g_variant_unref(IntPtr value);

    [DllImport(GLib)]
    private static extern void g_error_free(IntPtr error);

    [DllImport(GLib)]
    private static extern void g_free(IntPtr memory);
}
