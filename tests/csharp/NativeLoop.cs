using System;

// A thread that the runtime has not made runs the default context.
internal sealed class NativeLoop : IDisposable
{
    private const int Now = 2;

    private readonly IntPtr m_loop = NativeLibrary.g_main_loop_new(IntPtr.Zero, 0);
    private readonly IntPtr m_thread;

    internal NativeLoop()
    {
        IntPtr run = NativeLibrary.dlsym(NativeLibrary.dlopen("libglib-2.0.so.0", Now), "g_main_loop_run");
        m_thread = NativeLibrary.g_thread_new(new byte[] { (byte)'n', 0 }, run, m_loop);
        Expect.Soon(() => NativeLibrary.g_main_loop_is_running(m_loop) != 0, "the loop runs");
    }

    public void Dispose()
    {
        NativeLibrary.g_main_loop_quit(m_loop);
        NativeLibrary.g_thread_join(m_thread);
        NativeLibrary.g_main_loop_unref(m_loop);
    }
}
