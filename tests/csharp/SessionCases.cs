using System;
using System.Linq;

using Norvale.Mavix;

internal static class SessionCases
{
    private const string Interface = "com.norvale.ISessionControl";
    private const short OpenCode = 0;
    private const short CloseCode = 1;
    private const short InfoCode = 2;
    private const short TraceCode = 3;
    private const short TerminatedCode = 5;

    // How often this process asked for a function since the records were cleared.
    private static int Asked(short code)
    {
        string mark = "\"code\":" + code + ",";
        return ServiceControl.Records(ServiceControl.Lite).Split('\n').Count(line => line.Contains(mark) && line.Contains(Interface) &&
            line.Contains("\"ok\":true"));
    }

    private static byte[] Result(int result)
    {
        return BitConverter.GetBytes(result);
    }

    private static void With(short code, byte[] answer, Action action)
    {
        ServiceControl.SetReply(Interface, code, CallCases.Echo, answer, ServiceControl.Lite);
        try
        {
            action();
        }
        finally
        {
            ServiceControl.ClearReplies(ServiceControl.Lite);
        }
    }

    public static void TheServiceSeesOneOpenAndOneClose()
    {
        ServiceControl.ClearRecords(ServiceControl.Lite);
        using (Session.Open())
        using (Session.Open())
        {
            Expect.Equal(1, Asked(OpenCode), "opens");
            Expect.Equal(0, Asked(CloseCode), "closes");
        }
        Expect.Equal(1, Asked(OpenCode), "opens");
        Expect.Equal(1, Asked(CloseCode), "closes");
    }

    public static void ASessionIsClosedOnce()
    {
        using (Session.Open())
        {
            Session second = Session.Open();
            second.Close();
            second.Close();
            second.Dispose();
            ServiceControl.ClearRecords(ServiceControl.Lite);
        }
        Expect.Equal(1, Asked(CloseCode), "closes");
    }

    public static void ARefusedOpenSaysTheResultAndLeavesNothingOpen()
    {
        With(OpenCode, Result(7), () =>
        {
            MavixSessionException exception = Expect.Throws<MavixSessionException>(() => Session.Open());
            Expect.Equal(7, exception.Result);
            Expect.Equal(MavixFailure.SessionFailed, exception.Failure);
            Expect.Equal("com.norvale.ISessionControl, function 0: opening the session failed with the result 7", exception.Message);
        });
        ServiceControl.ClearRecords(ServiceControl.Lite);
        Session.Open().Dispose();
        Expect.Equal(1, Asked(OpenCode), "opens");
        Expect.Equal(1, Asked(CloseCode), "closes");
    }

    public static void ARefusedCloseSaysTheResult()
    {
        With(CloseCode, Result(5), () =>
        {
            Session session = Session.Open();
            Expect.Equal(5, Expect.Throws<MavixSessionException>(session.Close).Result);
        });
        // The service still has it.
        Expect.Equal(1, Expect.Throws<MavixSessionException>(() => Session.Open()).Result);
        Session.Open().Close();
    }

    public static void TheServiceTellsWhetherItIsTerminated()
    {
        Expect.Equal(false, Session.IsServiceTerminated());
        With(TerminatedCode, Result(0).Concat(Result(1)).ToArray(), () => Expect.Equal(true, Session.IsServiceTerminated()));
        With(TerminatedCode, Result(4), () => Expect.Throws<MavixSessionException>(() => Session.IsServiceTerminated()));
    }

    public static void TheServiceTellsAboutItsSessions()
    {
        using (Session.Open())
            Expect.True(Session.GetSessionsInfo().Length != 0, "a text");
        With(InfoCode, Result(3), () => Expect.Equal(3, Expect.Throws<MavixSessionException>(() => Session.GetSessionsInfo()).Result));
    }

    public static void ATraceIsOpenedWithItsCallerAndClosed()
    {
        ServiceControl.ClearRecords(ServiceControl.Lite);
        Session.OpenDebugTrace(77, "the caller", 5);
        Session.OpenDebugTrace(78);
        Expect.Soon(() => Asked(TraceCode) == 2, "two traces are opened");
        Expect.True(Session.GetSessionsInfo().Contains("the caller"), "the service knows the caller");
        Expect.True(Session.GetSessionsInfo().Contains("SessionCases"), "the service knows the stack");
        Session.CloseDebugTrace(77);
        Session.CloseDebugTrace(78);
    }
}
