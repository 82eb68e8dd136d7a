using System;
using System.Diagnostics;
using System.Threading;

namespace Norvale.Mavix
{
    // The thread that runs the process's default main context while a connection wants it; otherwise it rests.
    // One per process, started by its first user.
    internal static class EventPump
    {
        private const int MayBlock = 1;

        private static readonly object s_lock = new object();
        private static Thread s_thread;
        private static int s_users;
        private static bool s_ended;

        internal static void AddUser()
        {
            lock (s_lock)
            {
                ++s_users;
                if (s_thread == null && !s_ended)
                {
                    s_thread = new Thread(Run) { IsBackground = true, Name = "Norvale.Mavix events" };
                    s_thread.Start();
                }
                Monitor.PulseAll(s_lock);
            }
        }

        internal static void RemoveUser()
        {
            lock (s_lock)
            {
                --s_users;
            }
            NativeMethods.g_main_context_wakeup(IntPtr.Zero);
        }

        // For good. Waits until the thread has ended, unless the time is over or this is the thread itself.
        internal static void Stop(TimeSpan limit)
        {
            lock (s_lock)
            {
                s_ended = true;
                Monitor.PulseAll(s_lock);
            }
            if (s_thread == null || s_thread == Thread.CurrentThread)
                return;
            Stopwatch clock = Stopwatch.StartNew();
            // Another thread that runs the context may have taken one waking for itself.
            do
                NativeMethods.g_main_context_wakeup(IntPtr.Zero);
            while (!s_thread.Join(10) && clock.Elapsed < limit);
        }

        private static void Run()
        {
            while (IsWanted())
                NativeMethods.g_main_context_iteration(IntPtr.Zero, MayBlock);
        }

        private static bool IsWanted()
        {
            lock (s_lock)
            {
                while (s_users == 0 && !s_ended)
                    Monitor.Wait(s_lock);
                return !s_ended;
            }
        }
    }
}
