using System;
using System.IO;
using System.Reflection;
using System.Runtime.InteropServices;
using System.Text;

using Norvale.Mavix;

internal static class BufferCases
{
    public static void ANewOneIsEmpty()
    {
        using (MessageBuffer buffer = new MessageBuffer())
        {
            Expect.Equal(0L, buffer.Length);
            Expect.Equal(0, buffer.ToArray().Length);
            Expect.Equal("", buffer.Sender);
            Expect.Equal("", buffer.SenderApplicationName);
        }
        using (MessageBuffer buffer = new MessageBuffer(null))
            Expect.Equal(0L, buffer.Length);
    }

    public static void ValuesLieSideBySideInMachineOrder()
    {
        using (MessageBuffer buffer = new MessageBuffer(new byte[] { 9 }))
        {
            buffer.PushByte(0xFF).PushInt16(0x1234).PushInt32(-2).PushInt64(3).PushBytes(new byte[] { 1, 0, 2 }).PushText("ä");
            Expect.Bytes(new byte[] { 9, 0xFF, 0x34, 0x12, 0xFE, 0xFF, 0xFF, 0xFF, 3, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2, 0xC3, 0xA4 },
                buffer.ToArray());
            Expect.Equal(0x1234, (int)buffer.ReadInt16(2));
            Expect.Equal(-2, buffer.ReadInt32(4));
            Expect.Equal(3L, buffer.ReadInt64(8));
            Expect.Bytes(new byte[] { 1, 0, 2 }, buffer.ReadBytes(16, 3));
            Expect.Bytes(new byte[0], buffer.ReadBytes(21, 0));
        }
    }

    public static void TheReaderTakesOneValueAfterTheOther()
    {
        using (MessageBuffer buffer = new MessageBuffer())
        {
            buffer.PushByte(1).PushInt16(-2).PushInt32(3).PushInt64(long.MinValue).PushBytes(new byte[] { 7 }).PushText("text");
            MessageReader reader = buffer.Read();
            Expect.Equal(1, (int)reader.ReadByte());
            Expect.Equal(-2, (int)reader.ReadInt16());
            Expect.Equal(3, reader.ReadInt32());
            Expect.Equal(long.MinValue, reader.ReadInt64());
            Expect.Bytes(new byte[] { 7 }, reader.ReadBytes(1));
            Expect.Equal(4, reader.Remaining);
            Expect.Equal("te", reader.ReadText(2));
            Expect.Equal("xt", reader.ReadText());
            Expect.Equal("", reader.ReadText());
            Expect.Equal(20, reader.Position);
        }
    }

    public static void TheReaderRefusesWhatIsNotThereAndStaysWhereItWas()
    {
        MessageReader reader = new MessageReader(new byte[] { 1, 2, 3 });
        Expect.Throws<EndOfStreamException>(() => reader.ReadInt32());
        Expect.Throws<EndOfStreamException>(() => reader.ReadInt64());
        Expect.Throws<EndOfStreamException>(() => reader.ReadBytes(4));
        Expect.Throws<EndOfStreamException>(() => reader.ReadText(int.MaxValue));
        Expect.Throws<ArgumentOutOfRangeException>(() => reader.ReadBytes(-1));
        Expect.Equal(0x0201, (int)reader.ReadInt16());
        Expect.Throws<EndOfStreamException>(() => reader.ReadInt16());
        Expect.Equal(3, (int)reader.ReadByte());
        Expect.Throws<EndOfStreamException>(() => reader.ReadByte());
        Expect.Throws<ArgumentNullException>(() => new MessageReader(null));
    }

    public static void AReadOutsideIsAnExceptionAndNoEnd()
    {
        using (MessageBuffer buffer = new MessageBuffer(new byte[8]))
        {
            foreach (int offset in new[] { 7, 8, 9, int.MaxValue, -1, int.MinValue })
            {
                Expect.Throws<ArgumentOutOfRangeException>(() => buffer.ReadInt16(offset));
                Expect.Throws<ArgumentOutOfRangeException>(() => buffer.ReadInt32(offset));
                Expect.Throws<ArgumentOutOfRangeException>(() => buffer.ReadInt64(offset));
                Expect.Throws<ArgumentOutOfRangeException>(() => buffer.ReadBytes(offset, 2));
            }
            Expect.Throws<ArgumentOutOfRangeException>(() => buffer.ReadBytes(0, -1));
            Expect.Throws<ArgumentOutOfRangeException>(() => buffer.ReadBytes(0, int.MaxValue));
            Expect.Equal(0L, buffer.ReadInt64(0));
        }
    }

    public static void InsertsMoveTheRestUp()
    {
        using (MessageBuffer buffer = new MessageBuffer())
        {
            buffer.PushByte(1).InsertInt32(0, 7);
            buffer.InsertInt64(4, 9);
            buffer.InsertBytes(13, new byte[] { 5 });
            Expect.Bytes(new byte[] { 7, 0, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0, 1, 5 }, buffer.ToArray());
            foreach (int offset in new[] { 15, int.MaxValue, -1, -2 })
            {
                Expect.Throws<ArgumentOutOfRangeException>(() => buffer.InsertInt32(offset, 1));
                Expect.Throws<ArgumentOutOfRangeException>(() => buffer.InsertInt64(offset, 1));
                Expect.Throws<ArgumentOutOfRangeException>(() => buffer.InsertBytes(offset, new byte[1]));
            }
            Expect.Equal(14L, buffer.Length);
        }
    }

    public static void GrowsIsClearedAndTakesOthers()
    {
        using (MessageBuffer buffer = new MessageBuffer(new byte[] { 1 }))
        using (MessageBuffer other = new MessageBuffer(new byte[] { 2 }))
        {
            buffer.Reserve(100);
            buffer.PushBuffer(other).Grow(2).PushBuffer(buffer);
            Expect.Bytes(new byte[] { 1, 2, 0, 0, 1, 2, 0, 0 }, buffer.ToArray());
            buffer.Clear();
            Expect.Equal(0L, buffer.Length);
            Expect.Throws<ArgumentOutOfRangeException>(() => buffer.Grow(-1));
            Expect.Throws<ArgumentOutOfRangeException>(() => buffer.Reserve(-1));
        }
    }

    public static void NullArgumentsAreExceptions()
    {
        using (MessageBuffer buffer = new MessageBuffer())
        {
            Expect.Throws<ArgumentNullException>(() => buffer.PushBytes(null));
            Expect.Throws<ArgumentNullException>(() => buffer.PushText(null));
            Expect.Throws<ArgumentNullException>(() => buffer.PushBuffer(null));
            Expect.Throws<ArgumentNullException>(() => buffer.InsertBytes(0, null));
        }
    }

    public static void UseAfterDisposeIsAnException()
    {
        MessageBuffer buffer = new MessageBuffer();
        buffer.Dispose();
        buffer.Dispose();
        Expect.Throws<ObjectDisposedException>(() => buffer.PushInt32(1));
        Expect.Throws<ObjectDisposedException>(() => buffer.ToArray());
        using (MessageBuffer other = new MessageBuffer())
            Expect.Throws<ObjectDisposedException>(() => other.PushBuffer(buffer));
    }

    public static void EveryNativeBooleanIsOneByte()
    {
        int booleans = 0;
        Type native = typeof(MavixConnection).Assembly.GetType("Norvale.Mavix.NativeMethods", true);
        foreach (MethodInfo method in native.GetMethods(BindingFlags.NonPublic | BindingFlags.Static))
        {
            foreach (ParameterInfo value in Array.FindAll(AllValues(method), value => value.ParameterType == typeof(bool)))
            {
                MarshalAsAttribute marshal = value.GetCustomAttribute<MarshalAsAttribute>();
                Expect.True(marshal != null && marshal.Value == UnmanagedType.I1, method.Name);
                ++booleans;
            }
        }
        Expect.True(booleans > 15, "there are booleans");
    }

    private static ParameterInfo[] AllValues(MethodInfo method)
    {
        ParameterInfo[] parameters = method.GetParameters();
        Array.Resize(ref parameters, parameters.Length + 1);
        parameters[parameters.Length - 1] = method.ReturnParameter;
        return parameters;
    }
}
