using System;
using System.Runtime.InteropServices;
using System.Threading;

namespace Norvale.Mavix
{
    /// <summary>The process's session with the service, open until this is disposed of.</summary>
    /// <remarks>A program that uses the service opens a session before. Sessions are counted: the service sees one open
    /// for the first and one close for the last of a process. Any thread.</remarks>
    public sealed class Session : IDisposable
    {
        private const short OpenFunction = 0;
        private const short CloseFunction = 1;
        private const short SessionsInfoFunction = 2;
        private const short OpenTraceFunction = 3;
        private const short CloseTraceFunction = 4;
        private const short IsTerminatedFunction = 5;

        private const int Success = 0;
        private const int DebugInfoSize = 24;

        private int m_closed;

        private Session()
        {
        }

        /// <summary>Opens the session, or counts one more.</summary>
        /// <returns>The session.</returns>
        /// <exception cref="MavixSessionException">The service answered anything but 0, or was not reachable. No session is
        /// open then that was not before.</exception>
        public static Session Open()
        {
            int result = NativeMethods.SessionControl__Open();
            if (result != Success)
            {
                // A failed open counts as well.
                NativeMethods.SessionControl__Close();
                throw new MavixSessionException(OpenFunction, "opening the session", result);
            }
            return new Session();
        }

        /// <summary>Closes the session, once. The answer of the service is not looked at.</summary>
        public void Dispose()
        {
            if (Interlocked.Exchange(ref m_closed, 1) == 0)
                NativeMethods.SessionControl__Close();
        }

        /// <summary>Closes the session, once, and tells what the service made of it.</summary>
        /// <exception cref="MavixSessionException">The service refused, or was not reachable.</exception>
        public void Close()
        {
            if (Interlocked.Exchange(ref m_closed, 1) == 0)
                Require(CloseFunction, "closing the session", NativeMethods.SessionControl__Close());
        }

        /// <summary>Asks whether the service has been terminated.</summary>
        /// <returns>Whether it has.</returns>
        /// <exception cref="MavixSessionException">The service could not be asked.</exception>
        public static bool IsServiceTerminated()
        {
            int isTerminated;
            int result = NativeMethods.SessionControl__IsMavixTerminated(out isTerminated);
            Require(IsTerminatedFunction, "asking for the end of the service", result);
            return isTerminated != 0;
        }

        /// <summary>Asks for a text about the service's sessions.</summary>
        /// <returns>The text.</returns>
        /// <exception cref="MavixSessionException">The service refused, or was not reachable.</exception>
        public static string GetSessionsInfo()
        {
            IntPtr text;
            int result = NativeMethods.SessionControl__GetSessionsDebugInfo(out text);
            Require(SessionsInfoFunction, "asking for the sessions", result);
            try
            {
                return NativeText.ToText(text);
            }
            finally
            {
                NativeMethods.TCFreeMemory(text);
            }
        }

        /// <summary>Begins a trace of the service's, without waiting for it.</summary>
        /// <param name="traceId">A number of the caller's choice.</param>
        /// <param name="callerInfo">A text about the caller; null for the calling thread's stack.</param>
        /// <param name="parameter">Handed to the service as it is.</param>
        /// <exception cref="MavixSessionException">The request could not be sent.</exception>
        public static void OpenDebugTrace(long traceId, string callerInfo = null, int parameter = 0)
        {
            byte[] text = NativeText.FromArgument(callerInfo ?? Environment.StackTrace, nameof(callerInfo));
            GCHandle pinned = GCHandle.Alloc(text, GCHandleType.Pinned);
            try
            {
                NativeDebugInfo info = new NativeDebugInfo
                {
                    StructSize = DebugInfoSize,
                    CallerInfo = pinned.AddrOfPinnedObject(),
                    TraceParam = parameter
                };
                int result = NativeMethods.SessionControl__OpenDebugTrace(traceId, ref info);
                Require(OpenTraceFunction, "opening a trace", result);
            }
            finally
            {
                pinned.Free();
            }
        }

        /// <summary>Ends a trace, without waiting for the service.</summary>
        /// <param name="traceId">Its number.</param>
        /// <exception cref="MavixSessionException">The request could not be sent.</exception>
        public static void CloseDebugTrace(long traceId)
        {
            Require(CloseTraceFunction, "closing a trace", NativeMethods.SessionControl__CloseDebugTrace(traceId));
        }

        private static void Require(short functionCode, string request, int result)
        {
            if (result != Success)
                throw new MavixSessionException(functionCode, request, result);
        }
    }
}
