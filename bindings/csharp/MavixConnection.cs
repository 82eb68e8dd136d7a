using System;
using System.Collections.Generic;
using System.Diagnostics;
using System.Globalization;
using System.Threading;
using System.Threading.Tasks;

namespace Norvale.Mavix
{
    /// <summary>Calls the Mavix service and receives its events.</summary>
    /// <remarks>
    /// <para>All connections of a process share one native client, which connects in the background and lives until the
    /// process exits; a connection is cheap. Every member may be used by any thread at the same time.</para>
    /// <para>An event arrives where a handler waits for its type and a subscription of this process asks for it. Every
    /// connection gets each event of the types that it has handlers for, whichever connection subscribed. Handlers run
    /// on one thread, one event at a time. Adding a connection's first handler for a type waits for a handler of that
    /// type that is running on another thread: do not hold a lock meanwhile that the handler takes. While a connection
    /// has handlers it is not collected: dispose of it.</para>
    /// <para>Native code in the same process that creates a connection through the managed functions of the library
    /// takes all callbacks away, those of this assembly included; the first handler that is then added for a type on a
    /// connection brings them back for that type.</para>
    /// </remarks>
    public sealed class MavixConnection : IDisposable
    {
        /// <summary>The most bytes that the arguments of a call may have.</summary>
        public const int MaximalArguments = 16777216;

        private readonly object m_lock = new object();
        private readonly EventHandler<MavixEventArgs>[] m_handlers = new EventHandler<MavixEventArgs>[EventRelay.TypeCount];
        private readonly HashSet<MavixSubscription> m_subscriptions = new HashSet<MavixSubscription>();
        private readonly bool m_runsEvents;
        private bool m_disposed;

        /// <summary>Makes a connection, and the process's client with the first one. Does not wait for the bus.</summary>
        /// <param name="runEvents">Whether a thread of the library runs the process's default GLib main context, on which
        /// events arrive, as long as such a connection is there. False for a program that runs it itself.</param>
        /// <exception cref="MavixException">The process has begun to exit.</exception>
        public MavixConnection(bool runEvents = true)
        {
            GC.KeepAlive(NativeClient.Handle);
            m_runsEvents = runEvents;
            if (runEvents)
                EventPump.AddUser();
        }

        /// <summary>A handler of one of the events below has thrown. What handlers of this event throw is dropped; what
        /// nobody waits for goes to <see cref="Trace"/>.</summary>
        public event EventHandler<MavixUnobservedExceptionArgs> UnobservedException;

        /// <summary>An event of the type Signal.</summary>
        public event EventHandler<MavixEventArgs> SignalReceived
        {
            add { AddHandler(MavixEventType.Signal, value); }
            remove { RemoveHandler(MavixEventType.Signal, value); }
        }

        /// <summary>An event of the type PipelineEvent.</summary>
        public event EventHandler<MavixEventArgs> PipelineEventReceived
        {
            add { AddHandler(MavixEventType.PipelineEvent, value); }
            remove { RemoveHandler(MavixEventType.PipelineEvent, value); }
        }

        /// <summary>An event of the type Data.</summary>
        public event EventHandler<MavixEventArgs> DataReceived
        {
            add { AddHandler(MavixEventType.Data, value); }
            remove { RemoveHandler(MavixEventType.Data, value); }
        }

        /// <summary>An event of the type Program.</summary>
        public event EventHandler<MavixEventArgs> ProgramReceived
        {
            add { AddHandler(MavixEventType.Program, value); }
            remove { RemoveHandler(MavixEventType.Program, value); }
        }

        /// <summary>An event of the type Section.</summary>
        public event EventHandler<MavixEventArgs> SectionReceived
        {
            add { AddHandler(MavixEventType.Section, value); }
            remove { RemoveHandler(MavixEventType.Section, value); }
        }

        /// <summary>An event of the type TextData.</summary>
        public event EventHandler<MavixEventArgs> TextDataReceived
        {
            add { AddHandler(MavixEventType.TextData, value); }
            remove { RemoveHandler(MavixEventType.TextData, value); }
        }

        /// <summary>An event of the type Dsm.</summary>
        public event EventHandler<MavixEventArgs> DsmReceived
        {
            add { AddHandler(MavixEventType.Dsm, value); }
            remove { RemoveHandler(MavixEventType.Dsm, value); }
        }

        /// <summary>An event of the type CopyProtection.</summary>
        public event EventHandler<MavixEventArgs> CopyProtectionReceived
        {
            add { AddHandler(MavixEventType.CopyProtection, value); }
            remove { RemoveHandler(MavixEventType.CopyProtection, value); }
        }

        /// <summary>An event of the type PesData.</summary>
        public event EventHandler<MavixEventArgs> PesDataReceived
        {
            add { AddHandler(MavixEventType.PesData, value); }
            remove { RemoveHandler(MavixEventType.PesData, value); }
        }

        /// <summary>An event of the type ExPesData.</summary>
        public event EventHandler<MavixEventArgs> ExPesDataReceived
        {
            add { AddHandler(MavixEventType.ExPesData, value); }
            remove { RemoveHandler(MavixEventType.ExPesData, value); }
        }

        /// <summary>An event of the type Ht.</summary>
        public event EventHandler<MavixEventArgs> HtReceived
        {
            add { AddHandler(MavixEventType.Ht, value); }
            remove { RemoveHandler(MavixEventType.Ht, value); }
        }

        /// <summary>Calls a function of the service and waits for its result, for as long as the library does: up to 25 s
        /// for the service to come, and 25 s for its answer.</summary>
        /// <param name="interfaceName">The interface, for example "com.norvale.IAVControl".</param>
        /// <param name="functionCode">The function of the interface.</param>
        /// <param name="arguments">The arguments; null for none.</param>
        /// <returns>The result, which the caller disposes of.</returns>
        /// <exception cref="MavixException">The call failed.</exception>
        public MessageBuffer Call(string interfaceName, short functionCode, MessageBuffer arguments = null)
        {
            byte[] name = NameOf(interfaceName);
            return WithArguments(interfaceName, functionCode, arguments,
                input => CallNative(name, interfaceName, functionCode, input));
        }

        /// <summary>The same with arrays of bytes.</summary>
        /// <param name="interfaceName">The interface.</param>
        /// <param name="functionCode">The function of the interface.</param>
        /// <param name="arguments">The arguments; null for none.</param>
        /// <returns>The result.</returns>
        /// <exception cref="MavixException">The call failed.</exception>
        public byte[] Call(string interfaceName, short functionCode, byte[] arguments)
        {
            using (MessageBuffer input = new MessageBuffer(arguments))
            using (MessageBuffer output = Call(interfaceName, functionCode, input))
                return output.ToArray();
        }

        /// <summary>Calls on a thread of the pool. Do not use the arguments until the task has ended.</summary>
        /// <param name="interfaceName">The interface.</param>
        /// <param name="functionCode">The function of the interface.</param>
        /// <param name="arguments">The arguments; null for none.</param>
        /// <returns>The result, which the caller disposes of, or the <see cref="MavixException"/>.</returns>
        public Task<MessageBuffer> CallTask(string interfaceName, short functionCode, MessageBuffer arguments = null)
        {
            NameOf(interfaceName);
            return Task.Run(() => Call(interfaceName, functionCode, arguments));
        }

        /// <summary>Calls on a thread of the pool.</summary>
        /// <param name="interfaceName">The interface.</param>
        /// <param name="functionCode">The function of the interface.</param>
        /// <param name="arguments">The arguments; null for none. Do not change them until the task has ended.</param>
        /// <returns>The result, or the <see cref="MavixException"/>.</returns>
        public Task<byte[]> CallTask(string interfaceName, short functionCode, byte[] arguments)
        {
            NameOf(interfaceName);
            return Task.Run(() => Call(interfaceName, functionCode, arguments));
        }

        /// <summary>Calls a function of the service without waiting for a result: returns when the message was accepted
        /// for sending. Waits up to 25 s for the service to come.</summary>
        /// <param name="interfaceName">The interface.</param>
        /// <param name="functionCode">The function of the interface.</param>
        /// <param name="arguments">The arguments; null for none.</param>
        /// <exception cref="MavixException">The message was not accepted for sending.</exception>
        public void CallAsync(string interfaceName, short functionCode, MessageBuffer arguments = null)
        {
            byte[] name = NameOf(interfaceName);
            WithArguments(interfaceName, functionCode, arguments, input =>
            {
                if (!NativeMethods.TCIPCConnection_CallAsync(NativeClient.Handle, name, functionCode, input.Handle))
                    throw new MavixException(MavixFailure.NotSent, "the call was not accepted for sending", interfaceName,
                        functionCode);
                return true;
            });
        }

        /// <summary>The same with an array of bytes.</summary>
        /// <param name="interfaceName">The interface.</param>
        /// <param name="functionCode">The function of the interface.</param>
        /// <param name="arguments">The arguments; null for none.</param>
        /// <exception cref="MavixException">The message was not accepted for sending.</exception>
        public void CallAsync(string interfaceName, short functionCode, byte[] arguments)
        {
            using (MessageBuffer input = new MessageBuffer(arguments))
                CallAsync(interfaceName, functionCode, input);
        }

        /// <summary>Calls without waiting for a result, on a thread of the pool: the task ends when the message was
        /// accepted for sending. Do not use the arguments until then.</summary>
        /// <param name="interfaceName">The interface.</param>
        /// <param name="functionCode">The function of the interface.</param>
        /// <param name="arguments">The arguments; null for none.</param>
        /// <returns>The end, or the <see cref="MavixException"/>.</returns>
        public Task CallAsyncTask(string interfaceName, short functionCode, MessageBuffer arguments = null)
        {
            NameOf(interfaceName);
            return Task.Run(() => CallAsync(interfaceName, functionCode, arguments));
        }

        /// <summary>The same with an array of bytes.</summary>
        /// <param name="interfaceName">The interface.</param>
        /// <param name="functionCode">The function of the interface.</param>
        /// <param name="arguments">The arguments; null for none. Do not change them until the task has ended.</param>
        /// <returns>The end, or the <see cref="MavixException"/>.</returns>
        public Task CallAsyncTask(string interfaceName, short functionCode, byte[] arguments)
        {
            NameOf(interfaceName);
            return Task.Run(() => CallAsync(interfaceName, functionCode, arguments));
        }

        /// <summary>Waits until the service serves an interface, up to 25 s for each of its bus names.</summary>
        /// <param name="interfaceName">The interface.</param>
        /// <returns>Whether the service serves it. Always true on a device that does not support the service.</returns>
        public bool WaitForInterface(string interfaceName)
        {
            return NativeMethods.TCIPCConnection_WaitForCreateInterface(NativeClient.Handle, NameOf(interfaceName));
        }

        /// <summary>Asks the bus for the events of a type with this id about this handle. Subscriptions are counted: of
        /// two equal ones, one goes on when the other ends, and an event arrives once for both. A subscription is in
        /// force before any later call is answered.</summary>
        /// <param name="type">The type.</param>
        /// <param name="id">The id.</param>
        /// <param name="handleFirst">The first part of the handle.</param>
        /// <param name="handleSecond">The second part of the handle; its sign extends into the first: the parts 0 and -1
        /// are the handle 4294967295.</param>
        /// <returns>The subscription, which ends when it or the connection is disposed of.</returns>
        /// <exception cref="MavixException">The bus did not accept the request.</exception>
        public MavixSubscription Subscribe(MavixEventType type, int id, int handleFirst = 0, short handleSecond = 0)
        {
            if (type < 0 || (int)type >= EventRelay.TypeCount)
                throw new ArgumentOutOfRangeException(nameof(type));
            RequireOpen();
            MavixSubscription subscription = new MavixSubscription(this, type, id, handleFirst, handleSecond);
            if (!NativeMethods.TCIPCConnection_AddMatchRule(NativeClient.Handle, (int)type, id, handleFirst, handleSecond))
                throw new MavixException(MavixFailure.RuleFailed, "events of the type " + type + " with the id " +
                    id.ToString(CultureInfo.InvariantCulture) + " could not be subscribed to");
            lock (m_lock)
            {
                if (!m_disposed)
                {
                    m_subscriptions.Add(subscription);
                    return subscription;
                }
            }
            subscription.End();
            throw new ObjectDisposedException(nameof(MavixConnection));
        }

        /// <summary>Ends the connection's subscriptions and calls its handlers no more, except those that are running.
        /// Other connections go on, and so does the process's client.</summary>
        public void Dispose()
        {
            MavixSubscription[] subscriptions;
            lock (m_lock)
            {
                if (m_disposed)
                    return;
                Volatile.Write(ref m_disposed, true);
                Array.Clear(m_handlers, 0, m_handlers.Length);
                EventRelay.Remove(this);
                subscriptions = new MavixSubscription[m_subscriptions.Count];
                m_subscriptions.CopyTo(subscriptions);
                m_subscriptions.Clear();
            }
            foreach (MavixSubscription subscription in subscriptions)
                subscription.End();
            if (m_runsEvents)
                EventPump.RemoveUser();
        }

        internal void Forget(MavixSubscription subscription)
        {
            lock (m_lock)
                m_subscriptions.Remove(subscription);
        }

        // Each handler by itself: what one throws does not keep the event from the others.
        internal void Raise(MavixEventArgs arguments)
        {
            EventHandler<MavixEventArgs> handlers = Volatile.Read(ref m_handlers[(int)arguments.Type]);
            if (handlers == null)
                return;
            foreach (Delegate handler in handlers.GetInvocationList())
            {
                if (Volatile.Read(ref m_disposed))
                    return;
                try
                {
                    ((EventHandler<MavixEventArgs>)handler)(this, arguments);
                }
                catch (Exception exception)
                {
                    Report(arguments.Type, arguments.Id, exception);
                }
            }
        }

        // Throws nothing.
        internal void Report(MavixEventType type, int id, Exception exception)
        {
            try
            {
                EventHandler<MavixUnobservedExceptionArgs> handlers = UnobservedException;
                if (handlers != null)
                    handlers(this, new MavixUnobservedExceptionArgs(type, id, exception));
                else
                    Trace.TraceError("Norvale.Mavix: a handler of {0} has thrown: {1}", type, exception);
            }
            catch (Exception)
            {
                // The caller is native code.
            }
        }

        private void AddHandler(MavixEventType type, EventHandler<MavixEventArgs> handler)
        {
            bool isFirst;
            lock (m_lock)
            {
                RequireOpen();
                isFirst = m_handlers[(int)type] == null;
                Volatile.Write(ref m_handlers[(int)type], m_handlers[(int)type] + handler);
                if (m_handlers[(int)type] != null)
                    EventRelay.Add(this);
            }
            // Waits for a callback of the type that runs on another thread, which may want the lock.
            if (isFirst)
                EventRelay.Register(type);
        }

        private void RemoveHandler(MavixEventType type, EventHandler<MavixEventArgs> handler)
        {
            lock (m_lock)
            {
                Volatile.Write(ref m_handlers[(int)type], m_handlers[(int)type] - handler);
                if (Array.TrueForAll(m_handlers, other => other == null))
                    EventRelay.Remove(this);
            }
        }

        private void RequireOpen()
        {
            if (Volatile.Read(ref m_disposed))
                throw new ObjectDisposedException(nameof(MavixConnection));
        }

        private byte[] NameOf(string interfaceName)
        {
            RequireOpen();
            return NativeText.FromArgument(interfaceName, nameof(interfaceName));
        }

        private static TResult WithArguments<TResult>(string interfaceName, short functionCode, MessageBuffer arguments,
            Func<MessageBuffer, TResult> call)
        {
            if (arguments == null)
            {
                using (MessageBuffer none = new MessageBuffer())
                    return call(none);
            }
            if (arguments.Length > MaximalArguments)
                throw new MavixException(MavixFailure.ArgumentsTooLarge, "the arguments have more than " +
                    MaximalArguments.ToString(CultureInfo.InvariantCulture) + " bytes", interfaceName, functionCode);
            return call(arguments);
        }

        private static MessageBuffer CallNative(byte[] name, string interfaceName, short functionCode, MessageBuffer input)
        {
            MessageBuffer output = new MessageBuffer();
            if (NativeMethods.TCIPCConnection_Call(NativeClient.Handle, name, functionCode, input.Handle, output.Handle))
                return output;
            output.Dispose();
            throw new MavixException(MavixFailure.CallFailed,
                "the service refused the call, did not answer it well, or was not reachable", interfaceName, functionCode);
        }
    }
}
