using System;
using System.Runtime.InteropServices;
using System.Text;

namespace Norvale.Mavix
{
    // Texts as the library takes and gives them: UTF-8 with a zero behind it.
    internal static class NativeText
    {
        internal static byte[] FromArgument(string text, string argument)
        {
            if (text == null)
                throw new ArgumentNullException(argument);
            if (text.IndexOf('\0') >= 0)
                throw new ArgumentException("The text has a zero character.", argument);
            byte[] bytes = new byte[Encoding.UTF8.GetByteCount(text) + 1];
            Encoding.UTF8.GetBytes(text, 0, text.Length, bytes, 0);
            return bytes;
        }

        internal static string ToText(IntPtr native)
        {
            if (native == IntPtr.Zero)
                return "";
            int length = 0;
            while (Marshal.ReadByte(native, length) != 0)
                ++length;
            byte[] bytes = new byte[length];
            Marshal.Copy(native, bytes, 0, length);
            return Encoding.UTF8.GetString(bytes);
        }
    }
}
