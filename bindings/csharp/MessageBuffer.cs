using System;
using System.Runtime.InteropServices;
using System.Text;

namespace Norvale.Mavix
{
    // A native buffer of this assembly's own. Calls that use it keep it alive.
    internal sealed class BufferHandle : SafeHandle
    {
        private BufferHandle()
            : base(IntPtr.Zero, true)
        {
        }

        public override bool IsInvalid
        {
            get { return handle == IntPtr.Zero; }
        }

        protected override bool ReleaseHandle()
        {
            NativeMethods.TCMessageBuffer_Destroy(handle);
            return true;
        }
    }

    /// <summary>The arguments or the result of a call: a flat run of values in the order in which they were pushed,
    /// in machine byte order, without alignment, tags or lengths.</summary>
    /// <remarks>Offsets are in bytes from the start. One thread at a time uses a buffer.</remarks>
    public sealed class MessageBuffer : IDisposable
    {
        private readonly BufferHandle m_handle;

        /// <summary>Makes an empty buffer.</summary>
        public MessageBuffer()
        {
            m_handle = NativeMethods.TCMessageBuffer_Create();
            if (m_handle.IsInvalid)
                throw new OutOfMemoryException();
        }

        /// <summary>Makes a buffer with these bytes.</summary>
        /// <param name="bytes">The bytes; null for none.</param>
        public MessageBuffer(byte[] bytes)
            : this()
        {
            if (bytes != null)
                PushBytes(bytes);
        }

        /// <summary>The number of bytes.</summary>
        public long Length
        {
            get { return (long)NativeMethods.TCMessageBuffer_PayloadSize(Handle); }
        }

        /// <summary>The bus name of the peer that sent the bytes; empty when not known.</summary>
        public string Sender
        {
            get { return TextOf(NativeMethods.TCMessageBuffer_Sender); }
        }

        /// <summary>The name of that peer's application; empty when not known.</summary>
        public string SenderApplicationName
        {
            get { return TextOf(NativeMethods.TCMessageBuffer_SenderAppName); }
        }

        internal BufferHandle Handle
        {
            get
            {
                if (m_handle.IsClosed)
                    throw new ObjectDisposedException(nameof(MessageBuffer));
                return m_handle;
            }
        }

        /// <summary>Releases the buffer.</summary>
        public void Dispose()
        {
            m_handle.Dispose();
        }

        /// <summary>Makes room for this many bytes in all, so that pushing up to there allocates nothing.</summary>
        /// <param name="count">The number of bytes.</param>
        public void Reserve(int count)
        {
            RequireMemory(NativeMethods.TCMessageBuffer_Reserve(Handle, Count(count)));
        }

        /// <summary>Appends zero bytes.</summary>
        /// <param name="count">Their number.</param>
        /// <returns>This buffer.</returns>
        public MessageBuffer Grow(int count)
        {
            return Pushed(NativeMethods.TCMessageBuffer_Resize(Handle, Count(count)));
        }

        /// <summary>Takes all bytes away.</summary>
        public void Clear()
        {
            NativeMethods.TCMessageBuffer_Clean(Handle);
        }

        /// <summary>Appends one byte.</summary>
        /// <param name="value">The byte.</param>
        /// <returns>This buffer.</returns>
        public MessageBuffer PushByte(byte value)
        {
            return Pushed(NativeMethods.TCMessageBuffer_PushChar(Handle, value));
        }

        /// <summary>Appends a number of 2 bytes.</summary>
        /// <param name="value">The number.</param>
        /// <returns>This buffer.</returns>
        public MessageBuffer PushInt16(short value)
        {
            return Pushed(NativeMethods.TCMessageBuffer_PushShort(Handle, value));
        }

        /// <summary>Appends a number of 4 bytes.</summary>
        /// <param name="value">The number.</param>
        /// <returns>This buffer.</returns>
        public MessageBuffer PushInt32(int value)
        {
            return Pushed(NativeMethods.TCMessageBuffer_PushInt(Handle, value));
        }

        /// <summary>Appends a number of 8 bytes.</summary>
        /// <param name="value">The number.</param>
        /// <returns>This buffer.</returns>
        public MessageBuffer PushInt64(long value)
        {
            return Pushed(NativeMethods.TCMessageBuffer_PushLongLong(Handle, value));
        }

        /// <summary>Appends a copy of the bytes, without their number.</summary>
        /// <param name="bytes">The bytes.</param>
        /// <returns>This buffer.</returns>
        public MessageBuffer PushBytes(byte[] bytes)
        {
            return Pushed(NativeMethods.TCMessageBuffer_PushConcatenated(Handle, Size(bytes), bytes));
        }

        /// <summary>Appends a text in UTF-8, without its length and without a zero behind it.</summary>
        /// <param name="text">The text.</param>
        /// <returns>This buffer.</returns>
        public MessageBuffer PushText(string text)
        {
            if (text == null)
                throw new ArgumentNullException(nameof(text));
            return PushBytes(Encoding.UTF8.GetBytes(text));
        }

        /// <summary>Appends all bytes of a buffer, which may be this one.</summary>
        /// <param name="other">The buffer.</param>
        /// <returns>This buffer.</returns>
        public MessageBuffer PushBuffer(MessageBuffer other)
        {
            if (other == null)
                throw new ArgumentNullException(nameof(other));
            return Pushed(NativeMethods.TCMessageBuffer_PushBuffer(Handle, other.Handle));
        }

        /// <summary>Inserts a number of 4 bytes and moves the rest up: no byte is replaced.</summary>
        /// <param name="offset">Where to, at most <see cref="Length"/>.</param>
        /// <param name="value">The number.</param>
        public void InsertInt32(int offset, int value)
        {
            RequirePlace(offset);
            RequireMemory(NativeMethods.TCMessageBuffer_WriteInt(Handle, value, offset));
        }

        /// <summary>Inserts a number of 8 bytes and moves the rest up: no byte is replaced.</summary>
        /// <param name="offset">Where to, at most <see cref="Length"/>.</param>
        /// <param name="value">The number.</param>
        public void InsertInt64(int offset, long value)
        {
            RequirePlace(offset);
            RequireMemory(NativeMethods.TCMessageBuffer_WriteLongLong(Handle, value, offset));
        }

        /// <summary>Inserts a copy of the bytes and moves the rest up: no byte is replaced.</summary>
        /// <param name="offset">Where to, at most <see cref="Length"/>.</param>
        /// <param name="bytes">The bytes.</param>
        public void InsertBytes(int offset, byte[] bytes)
        {
            UIntPtr size = Size(bytes);
            RequirePlace(offset);
            RequireMemory(NativeMethods.TCMessageBuffer_WriteConcatenated(Handle, size, bytes, offset));
        }

        /// <summary>Reads a number of 2 bytes.</summary>
        /// <param name="offset">Where it begins.</param>
        /// <returns>The number.</returns>
        /// <exception cref="ArgumentOutOfRangeException">The buffer does not have it whole.</exception>
        public short ReadInt16(int offset)
        {
            short value;
            RequireValue(NativeMethods.TCMessageBuffer_ReadShort(Handle, out value, Offset(offset)), offset);
            return value;
        }

        /// <summary>Reads a number of 4 bytes.</summary>
        /// <param name="offset">Where it begins.</param>
        /// <returns>The number.</returns>
        /// <exception cref="ArgumentOutOfRangeException">The buffer does not have it whole.</exception>
        public int ReadInt32(int offset)
        {
            int value;
            RequireValue(NativeMethods.TCMessageBuffer_ReadInt(Handle, out value, Offset(offset)), offset);
            return value;
        }

        /// <summary>Reads a number of 8 bytes.</summary>
        /// <param name="offset">Where it begins.</param>
        /// <returns>The number.</returns>
        /// <exception cref="ArgumentOutOfRangeException">The buffer does not have it whole.</exception>
        public long ReadInt64(int offset)
        {
            long value;
            RequireValue(NativeMethods.TCMessageBuffer_ReadLongLong(Handle, out value, Offset(offset)), offset);
            return value;
        }

        /// <summary>Reads bytes.</summary>
        /// <param name="offset">Where they begin.</param>
        /// <param name="count">Their number.</param>
        /// <returns>A copy of them.</returns>
        /// <exception cref="ArgumentOutOfRangeException">The buffer does not have them all.</exception>
        public byte[] ReadBytes(int offset, int count)
        {
            Offset(offset);
            if (Count(count) > Length - offset)
                throw new ArgumentOutOfRangeException(nameof(count), "The buffer does not have so many bytes there.");
            byte[] bytes = new byte[count];
            RequireValue(NativeMethods.TCMessageBuffer_ReadConcatenated(Handle, Size(bytes), bytes, (uint)offset), offset);
            return bytes;
        }

        /// <summary>Copies all bytes.</summary>
        /// <returns>The copy.</returns>
        public byte[] ToArray()
        {
            return ReadBytes(0, checked((int)Length));
        }

        /// <summary>Begins to read values one after the other, from a copy of the bytes.</summary>
        /// <returns>A reader at the first byte.</returns>
        public MessageReader Read()
        {
            return new MessageReader(ToArray());
        }

        // A copy of what a buffer holds that this assembly does not own.
        internal static byte[] CopyOf(IntPtr buffer)
        {
            byte[] bytes = new byte[checked((int)NativeMethods.TCMessageBuffer_PayloadSize(buffer))];
            if (bytes.Length != 0)
                Marshal.Copy(NativeMethods.TCMessageBuffer_Payload(buffer), bytes, 0, bytes.Length);
            return bytes;
        }

        private string TextOf(Func<BufferHandle, IntPtr> native)
        {
            string text = NativeText.ToText(native(Handle));
            GC.KeepAlive(this);
            return text;
        }

        private static uint Count(int count)
        {
            if (count < 0)
                throw new ArgumentOutOfRangeException(nameof(count));
            return (uint)count;
        }

        private static uint Offset(int offset)
        {
            if (offset < 0)
                throw new ArgumentOutOfRangeException(nameof(offset));
            return (uint)offset;
        }

        private static UIntPtr Size(byte[] bytes)
        {
            if (bytes == null)
                throw new ArgumentNullException(nameof(bytes));
            return (UIntPtr)bytes.Length;
        }

        private void RequirePlace(int offset)
        {
            if (offset < 0 || offset > Length)
                throw new ArgumentOutOfRangeException(nameof(offset), "The buffer does not reach so far.");
        }

        private static void RequireValue(bool wasThere, int offset)
        {
            if (!wasThere)
                throw new ArgumentOutOfRangeException(nameof(offset), offset, "The buffer does not have the value there.");
        }

        // What is refused after the arguments were found good did not fit into memory.
        private static void RequireMemory(bool done)
        {
            if (!done)
                throw new OutOfMemoryException();
        }

        private MessageBuffer Pushed(bool done)
        {
            RequireMemory(done);
            return this;
        }
    }
}
