using System;
using System.Globalization;
using System.Runtime.InteropServices;
using System.Threading;

namespace Norvale.Mavix
{
    // A native cache of this assembly's own. Calls that use it keep it alive.
    internal sealed class CacheHandle : SafeHandle
    {
        private CacheHandle()
            : base(IntPtr.Zero, true)
        {
        }

        public override bool IsInvalid
        {
            get { return handle == IntPtr.Zero; }
        }

        protected override bool ReleaseHandle()
        {
            return NativeMethods.IPCCache_Destroy(handle);
        }
    }

    /// <summary>Small named values in shared memory: one process writes them, any number of processes read them, without a
    /// call to the service.</summary>
    /// <remarks>
    /// <para>A cache and its values outlive the processes that use them; all values of a cache share 4096 bytes. A value is
    /// addressed by a name, or by a name and an id. A reader may come before the writer: it works as soon as there is a
    /// cache.</para>
    /// <para>Who may not give the cache's lock file its owner cannot use the cache: such a process finds no value and
    /// stores none. Root may, and so may the user of the service, where the file is there.</para>
    /// <para>Every member may be used by any thread at the same time.</para>
    /// </remarks>
    public sealed class Cache : IDisposable
    {
        // What stands for a name alone.
        private static readonly UIntPtr NoId = UIntPtr.Size == 4 ? new UIntPtr(uint.MaxValue) : new UIntPtr(ulong.MaxValue);

        // The bytes of a file's name, without those that the lock file's name has behind the cache's.
        private const int LongestName = 255 - 11;

        private const string ReservedName = "write_guard";

        private readonly object m_writeLock = new object();
        private readonly CacheHandle m_handle;
        private bool m_disposed;

        private Cache(string name, bool canWrite, Func<byte[], CacheHandle> open)
        {
            byte[] native = NativeText.FromArgument(name, nameof(name));
            RequireFileName(name, native.Length - 1);
            Name = name;
            CanWrite = canWrite;
            m_handle = open(native);
            if (m_handle.IsInvalid)
                throw new OutOfMemoryException();
        }

        /// <summary>The cache's name.</summary>
        public string Name { get; }

        /// <summary>Whether it was opened for writing.</summary>
        public bool CanWrite { get; }

        // The handle itself is closed when nobody uses it any more, which threads that go on could put off for ever.
        private CacheHandle Handle
        {
            get
            {
                if (Volatile.Read(ref m_disposed))
                    throw new ObjectDisposedException(nameof(Cache));
                return m_handle;
            }
        }

        /// <summary>Opens a cache for reading. It need not be there yet.</summary>
        /// <param name="name">Its name, which is a file's name: no "/" but in front, no "..", at most 244 bytes.</param>
        /// <returns>The cache.</returns>
        public static Cache OpenReader(string name)
        {
            return new Cache(name, false, NativeMethods.IPCCache_CreateReader);
        }

        /// <summary>Opens a cache for reading and writing, and makes it when there is none.</summary>
        /// <param name="name">Its name, which is a file's name: no "/" but in front, no "..", at most 244 bytes.</param>
        /// <returns>The cache.</returns>
        public static Cache OpenWriter(string name)
        {
            return new Cache(name, true, NativeMethods.IPCCache_CreateWriter);
        }

        /// <summary>Closes the cache. Its values stay.</summary>
        public void Dispose()
        {
            Volatile.Write(ref m_disposed, true);
            m_handle.Dispose();
        }

        /// <summary>Reads the value of a name without id.</summary>
        /// <param name="name">The name.</param>
        /// <returns>A copy of the value's bytes; null when there is none, or the cache cannot be read. The platform's log
        /// says which.</returns>
        public byte[] Get(string name)
        {
            return Read(NativeText.FromArgument(name, nameof(name)), NoId);
        }

        /// <summary>Reads the value of a name and an id.</summary>
        /// <param name="name">The name.</param>
        /// <param name="id">The id.</param>
        /// <returns>A copy of the value's bytes; null when there is none, or the cache cannot be read. The platform's log
        /// says which.</returns>
        public byte[] Get(string name, uint id)
        {
            return Read(NativeText.FromArgument(name, nameof(name)), NativeId(id));
        }

        /// <summary>Stores the value of a name without id.</summary>
        /// <param name="name">The name; "write_guard" is the library's own.</param>
        /// <param name="value">The value. A value that is there keeps its length: a shorter one replaces its beginning, a
        /// longer one is refused. Reset it before.</param>
        /// <exception cref="InvalidOperationException">The cache was opened for reading.</exception>
        /// <exception cref="MavixException">The value was not stored: a shorter one is there, or there is no room for it, or
        /// the process may not use the cache. After a value for which there was no room, no value can be read, and the next
        /// one that is stored is the only one.</exception>
        public void Set(string name, byte[] value)
        {
            byte[] native = NativeText.FromArgument(name, nameof(name));
            if (name == ReservedName)
                throw new ArgumentException("The name is the library's own.", nameof(name));
            Write(native, NoId, name, value);
        }

        /// <summary>Stores the value of a name and an id.</summary>
        /// <param name="name">The name.</param>
        /// <param name="id">The id.</param>
        /// <param name="value">The value, as of <see cref="Set(string, byte[])"/>.</param>
        /// <exception cref="InvalidOperationException">The cache was opened for reading.</exception>
        /// <exception cref="MavixException">The value was not stored, as of <see cref="Set(string, byte[])"/>.</exception>
        public void Set(string name, uint id, byte[] value)
        {
            Write(NativeText.FromArgument(name, nameof(name)), NativeId(id),
                name + ", id " + id.ToString(CultureInfo.InvariantCulture), value);
        }

        /// <summary>Removes the value of a name without id.</summary>
        /// <param name="name">The name.</param>
        /// <returns>Whether there was one that could be removed.</returns>
        /// <exception cref="InvalidOperationException">The cache was opened for reading.</exception>
        public bool Reset(string name)
        {
            return Remove(NativeText.FromArgument(name, nameof(name)), NoId);
        }

        /// <summary>Removes the value of a name and an id.</summary>
        /// <param name="name">The name.</param>
        /// <param name="id">The id.</param>
        /// <returns>Whether there was one that could be removed.</returns>
        /// <exception cref="InvalidOperationException">The cache was opened for reading.</exception>
        public bool Reset(string name, uint id)
        {
            return Remove(NativeText.FromArgument(name, nameof(name)), NativeId(id));
        }

        private static void RequireFileName(string name, int bytes)
        {
            int separator = name.StartsWith("/", StringComparison.Ordinal) ? 1 : 0;
            if (bytes == separator)
                throw new ArgumentException("A cache has a name.", nameof(name));
            if (bytes - separator > LongestName)
                throw new ArgumentException("The name has more than " +
                    LongestName.ToString(CultureInfo.InvariantCulture) + " bytes.", nameof(name));
            if (name.IndexOf('/', separator) >= 0 || name.IndexOf("..", StringComparison.Ordinal) >= 0)
                throw new ArgumentException("The name leads into another folder.", nameof(name));
        }

        // Where the number is no wider than an id, all ones mean a name alone.
        private static UIntPtr NativeId(uint id)
        {
            UIntPtr native = new UIntPtr(id);
            if (native == NoId)
                throw new ArgumentOutOfRangeException(nameof(id));
            return native;
        }

        // Native code ends the process that writes through a reader.
        private void RequireWriter()
        {
            if (!CanWrite)
                throw new InvalidOperationException("The cache " + Name + " was opened for reading.");
        }

        private byte[] Read(byte[] name, UIntPtr id)
        {
            IntPtr data;
            UIntPtr size;
            if (!NativeMethods.IPCCache_GetData(Handle, name, id, out data, out size))
                return null;
            try
            {
                byte[] value = new byte[checked((int)size)];
                Marshal.Copy(data, value, 0, value.Length);
                return value;
            }
            finally
            {
                NativeMethods.TCFreeMemory(data);
            }
        }

        // The library does not say whether it stored a value, so we look. Nobody else writes meanwhile: other threads wait,
        // and a cache has one process that writes.
        private void Write(byte[] name, UIntPtr id, string shownName, byte[] value)
        {
            if (value == null)
                throw new ArgumentNullException(nameof(value));
            CacheHandle handle = Handle;
            RequireWriter();
            lock (m_writeLock)
            {
                NativeMethods.IPCCache_SetData(handle, name, id, value, (UIntPtr)value.Length);
                RequireStored(shownName, value, Read(name, id));
            }
        }

        private bool Remove(byte[] name, UIntPtr id)
        {
            CacheHandle handle = Handle;
            RequireWriter();
            lock (m_writeLock)
                return NativeMethods.IPCCache_ResetData(handle, name, id);
        }

        private void RequireStored(string shownName, byte[] value, byte[] stored)
        {
            string reason = null;
            if (stored == null)
                reason = "there is no room for it, or the process may not use the cache";
            else if (stored.Length < value.Length)
                reason = "the one that is there has only " + stored.Length.ToString(CultureInfo.InvariantCulture) +
                    " bytes; reset it before";
            else if (!BeginsWith(stored, value))
                reason = "another one is there";
            if (reason != null)
                throw new MavixException(MavixFailure.CacheFailed, "the value " + shownName + " was not stored in the cache " +
                    Name + ": " + reason);
        }

        private static bool BeginsWith(byte[] bytes, byte[] beginning)
        {
            for (int at = 0; at < beginning.Length; ++at)
            {
                if (bytes[at] != beginning[at])
                    return false;
            }
            return true;
        }
    }
}
