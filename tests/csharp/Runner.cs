using System;
using System.Collections.Generic;
using System.Diagnostics;
using System.Linq;
using System.Reflection;

// A case is a public static method without arguments of a class in this assembly that is named ...Cases. One line a
// case tells what became of it.
//
//     Suite.exe                runs all of them
//     Suite.exe EventCases     runs those of a class
//     Suite.exe EventCases.X   runs one
//     Suite.exe --child NAME   runs a program of ChildPrograms
//     Suite.exe --cache ...    runs the other process of CacheCases
internal static class Runner
{
    private static int Main(string[] arguments)
    {
        if (arguments.Length == 2 && arguments[0] == "--child")
            return ChildPrograms.Run(arguments[1]);
        if (arguments.Length != 0 && arguments[0] == "--cache")
            return CacheProgram.Run(arguments);
        int failed = 0;
        int run = 0;
        foreach (MethodInfo method in Cases(arguments))
        {
            ++run;
            failed += Passes(method) ? 0 : 1;
        }
        Console.WriteLine("{0} cases, {1} failed", run, failed);
        return run != 0 && failed == 0 ? 0 : 1;
    }

    private static IEnumerable<MethodInfo> Cases(string[] wanted)
    {
        return from type in Assembly.GetExecutingAssembly().GetTypes()
               where type.Name.EndsWith("Cases", StringComparison.Ordinal)
               from method in type.GetMethods(BindingFlags.Public | BindingFlags.Static | BindingFlags.DeclaredOnly)
               where wanted.Length == 0 || wanted.Contains(type.Name) || wanted.Contains(type.Name + "." + method.Name)
               select method;
    }

    private static bool Passes(MethodInfo method)
    {
        string name = method.DeclaringType.Name + "." + method.Name;
        Stopwatch clock = Stopwatch.StartNew();
        try
        {
            method.Invoke(null, null);
            Console.WriteLine("ok      {0} ({1} ms)", name, clock.ElapsedMilliseconds);
            return true;
        }
        catch (TargetInvocationException exception)
        {
            Console.WriteLine("FAILED  {0} ({1} ms)", name, clock.ElapsedMilliseconds);
            Console.WriteLine(exception.InnerException);
            return false;
        }
    }
}

internal sealed class ExpectationException : Exception
{
    internal ExpectationException(string message)
        : base(message)
    {
    }
}

internal static class Expect
{
    internal static void True(bool holds, string what)
    {
        if (!holds)
            throw new ExpectationException("does not hold: " + what);
    }

    internal static void Equal<T>(T expected, T actual, string what = "")
    {
        if (!EqualityComparer<T>.Default.Equals(expected, actual))
            throw new ExpectationException(string.Format("{0}: expected {1}, got {2}", what, expected, actual));
    }

    internal static void Bytes(byte[] expected, byte[] actual)
    {
        if (!expected.SequenceEqual(actual))
            throw new ExpectationException("expected " + BitConverter.ToString(expected) + ", got " +
                BitConverter.ToString(actual));
    }

    internal static TException Throws<TException>(Action action)
        where TException : Exception
    {
        try
        {
            action();
        }
        catch (TException exception)
        {
            return exception;
        }
        throw new ExpectationException("expected " + typeof(TException).Name);
    }

    internal static void Soon(Func<bool> condition, string what)
    {
        True(ServiceControl.Await(condition), what);
    }
}

internal static class Settings
{
    // Sanitizer builds run a part of the counts.
    internal static int Scaled(int count)
    {
        return Math.Max(1, count / Number("MAVIX_TEST_SCALE_DIVISOR", 1));
    }

    internal static int Number(string variable, int otherwise)
    {
        string text = Environment.GetEnvironmentVariable(variable);
        return string.IsNullOrEmpty(text) ? otherwise : int.Parse(text);
    }
}
