using System;
using System.Threading;

namespace Norvale.Mavix
{
    /// <summary>Asks the bus for the events of one type with one id about one handle, until it is disposed of.</summary>
    /// <remarks>Made by <see cref="MavixConnection.Subscribe"/>, and ended with its connection at the latest.</remarks>
    public sealed class MavixSubscription : IDisposable
    {
        private readonly MavixConnection m_connection;
        private int m_ended;

        internal MavixSubscription(MavixConnection connection, MavixEventType type, int id, int handleFirst,
            short handleSecond)
        {
            m_connection = connection;
            Type = type;
            Id = id;
            HandleFirst = handleFirst;
            HandleSecond = handleSecond;
        }

        /// <summary>The type of the events.</summary>
        public MavixEventType Type { get; }

        /// <summary>The id of the events.</summary>
        public int Id { get; }

        /// <summary>The first part of the handle.</summary>
        public int HandleFirst { get; }

        /// <summary>The second part of the handle.</summary>
        public short HandleSecond { get; }

        /// <summary>Ends the subscription. Events that are on their way may still arrive.</summary>
        public void Dispose()
        {
            m_connection.Forget(this);
            End();
        }

        // Once.
        internal void End()
        {
            if (Interlocked.Exchange(ref m_ended, 1) != 0)
                return;
            try
            {
                NativeMethods.TCIPCConnection_RemoveMatchRule(NativeClient.Handle, (int)Type, Id, HandleFirst, HandleSecond);
            }
            catch (ObjectDisposedException)
            {
                // The process exits, and the rule ends with it.
            }
        }
    }
}
