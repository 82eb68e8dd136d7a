using System;
using System.IO;
using System.Text;

namespace Norvale.Mavix
{
    /// <summary>Reads the values of a message one after the other, in the order in which they were pushed.</summary>
    /// <remarks>A value that the message does not have whole is an <see cref="EndOfStreamException"/>; the position
    /// stays where it was.</remarks>
    public sealed class MessageReader
    {
        private readonly byte[] m_bytes;
        private int m_position;

        /// <summary>Begins at the first of these bytes, which are not copied.</summary>
        /// <param name="bytes">The bytes of the message.</param>
        public MessageReader(byte[] bytes)
        {
            if (bytes == null)
                throw new ArgumentNullException(nameof(bytes));
            m_bytes = bytes;
        }

        /// <summary>How many bytes were read.</summary>
        public int Position
        {
            get { return m_position; }
        }

        /// <summary>How many bytes are left.</summary>
        public int Remaining
        {
            get { return m_bytes.Length - m_position; }
        }

        /// <summary>Reads one byte.</summary>
        /// <returns>The byte.</returns>
        public byte ReadByte()
        {
            return m_bytes[Advance(1)];
        }

        /// <summary>Reads a number of 2 bytes.</summary>
        /// <returns>The number.</returns>
        public short ReadInt16()
        {
            return BitConverter.ToInt16(m_bytes, Advance(2));
        }

        /// <summary>Reads a number of 4 bytes.</summary>
        /// <returns>The number.</returns>
        public int ReadInt32()
        {
            return BitConverter.ToInt32(m_bytes, Advance(4));
        }

        /// <summary>Reads a number of 8 bytes.</summary>
        /// <returns>The number.</returns>
        public long ReadInt64()
        {
            return BitConverter.ToInt64(m_bytes, Advance(8));
        }

        /// <summary>Reads bytes.</summary>
        /// <param name="count">Their number.</param>
        /// <returns>A copy of them.</returns>
        public byte[] ReadBytes(int count)
        {
            int start = Advance(count);
            byte[] bytes = new byte[count];
            Array.Copy(m_bytes, start, bytes, 0, count);
            return bytes;
        }

        /// <summary>Reads a text in UTF-8.</summary>
        /// <param name="count">The number of its bytes.</param>
        /// <returns>The text.</returns>
        public string ReadText(int count)
        {
            int start = Advance(count);
            return Encoding.UTF8.GetString(m_bytes, start, count);
        }

        /// <summary>Reads the rest as a text in UTF-8.</summary>
        /// <returns>The text.</returns>
        public string ReadText()
        {
            return ReadText(Remaining);
        }

        // Where the next value begins.
        private int Advance(int count)
        {
            if (count < 0)
                throw new ArgumentOutOfRangeException(nameof(count));
            if (count > Remaining)
                throw new EndOfStreamException("The message has " + Remaining + " bytes left, not " + count + ".");
            int start = m_position;
            m_position += count;
            return start;
        }
    }
}
