using System;
using System.Globalization;

namespace Norvale.Mavix
{
    /// <summary>Why an operation failed.</summary>
    public enum MavixFailure
    {
        /// <summary>The process has no client: it has begun to exit, or was forked after the client was created.</summary>
        NoClient,

        /// <summary>The service refused the call, was not reachable in time, did not answer in time, or sent a broken
        /// answer. The platform's log says which.</summary>
        CallFailed,

        /// <summary>The message was not accepted for sending.</summary>
        NotSent,

        /// <summary>The arguments are larger than a call may carry.</summary>
        ArgumentsTooLarge,

        /// <summary>The bus did not accept the request for events.</summary>
        RuleFailed,

        /// <summary>The service refused the session, or was not reachable.</summary>
        SessionFailed,

        /// <summary>A value was not stored in a cache. The platform's log has more.</summary>
        CacheFailed
    }

    /// <summary>Says which function of which interface failed, and why.</summary>
    public class MavixException : Exception
    {
        /// <summary>Makes an exception.</summary>
        /// <param name="failure">Why it failed.</param>
        /// <param name="reason">The same as a text for people.</param>
        /// <param name="interfaceName">The interface that was called, or null when none was.</param>
        /// <param name="functionCode">The function that was called, or null when none was.</param>
        public MavixException(MavixFailure failure, string reason, string interfaceName = null,
            short? functionCode = null)
            : base(MessageOf(reason, interfaceName, functionCode))
        {
            Failure = failure;
            Reason = reason;
            InterfaceName = interfaceName;
            FunctionCode = functionCode;
        }

        /// <summary>Why it failed.</summary>
        public MavixFailure Failure { get; }

        /// <summary>Why it failed, as a text for people.</summary>
        public string Reason { get; }

        /// <summary>The interface that was called, or null when none was.</summary>
        public string InterfaceName { get; }

        /// <summary>The function that was called, or null when none was.</summary>
        public short? FunctionCode { get; }

        private static string MessageOf(string reason, string interfaceName, short? functionCode)
        {
            if (interfaceName == null)
                return reason;
            string function = functionCode.HasValue
                ? ", function " + functionCode.Value.ToString(CultureInfo.InvariantCulture)
                : "";
            return interfaceName + function + ": " + reason;
        }
    }

    /// <summary>A request about the session failed.</summary>
    public sealed class MavixSessionException : MavixException
    {
        /// <summary>Makes an exception.</summary>
        /// <param name="functionCode">The function of the session interface.</param>
        /// <param name="request">What was asked for.</param>
        /// <param name="result">The result of the library or of the service.</param>
        public MavixSessionException(short functionCode, string request, int result)
            : base(MavixFailure.SessionFailed,
                request + " failed with the result " + result.ToString(CultureInfo.InvariantCulture),
                "com.norvale.ISessionControl", functionCode)
        {
            Result = result;
        }

        /// <summary>-1 when the service was not reachable, otherwise its own answer.</summary>
        public int Result { get; }
    }
}
