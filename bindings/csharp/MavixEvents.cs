using System;

namespace Norvale.Mavix
{
    /// <summary>The types of the service's events that reach managed programs.</summary>
    public enum MavixEventType
    {
        /// <summary>Signal.</summary>
        Signal = 0,

        /// <summary>Pipeline event.</summary>
        PipelineEvent = 1,

        /// <summary>Data.</summary>
        Data = 2,

        /// <summary>Program.</summary>
        Program = 3,

        /// <summary>Section.</summary>
        Section = 4,

        /// <summary>Text data.</summary>
        TextData = 5,

        /// <summary>DSM.</summary>
        Dsm = 6,

        /// <summary>Copy-protection information.</summary>
        CopyProtection = 7,

        /// <summary>PES data.</summary>
        PesData = 8,

        /// <summary>Extended PES data.</summary>
        ExPesData = 9,

        /// <summary>HT.</summary>
        Ht = 10
    }

    /// <summary>An event of the service.</summary>
    public sealed class MavixEventArgs : EventArgs
    {
        /// <summary>Makes an event.</summary>
        /// <param name="type">Its type.</param>
        /// <param name="id">Its id.</param>
        /// <param name="payload">Its payload, which is not copied.</param>
        public MavixEventArgs(MavixEventType type, int id, byte[] payload)
        {
            Type = type;
            Id = id;
            Payload = payload;
        }

        /// <summary>The type.</summary>
        public MavixEventType Type { get; }

        /// <summary>The id.</summary>
        public int Id { get; }

        /// <summary>The payload, empty when there is none. It may be kept; all handlers get the same array.</summary>
        public byte[] Payload { get; }

        /// <summary>Begins to read the payload's values one after the other.</summary>
        /// <returns>A reader at the first byte.</returns>
        public MessageReader Read()
        {
            return new MessageReader(Payload);
        }
    }

    /// <summary>What a handler of an event has thrown.</summary>
    public sealed class MavixUnobservedExceptionArgs : EventArgs
    {
        /// <summary>Makes a report.</summary>
        /// <param name="type">The type of the event.</param>
        /// <param name="id">The id of the event.</param>
        /// <param name="exception">What was thrown.</param>
        public MavixUnobservedExceptionArgs(MavixEventType type, int id, Exception exception)
        {
            Type = type;
            Id = id;
            Exception = exception;
        }

        /// <summary>The type of the event.</summary>
        public MavixEventType Type { get; }

        /// <summary>The id of the event.</summary>
        public int Id { get; }

        /// <summary>What was thrown.</summary>
        public Exception Exception { get; }
    }
}
