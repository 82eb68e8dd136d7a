#ifndef MAVIX_SPARE_DESCRIPTOR_H
#define MAVIX_SPARE_DESCRIPTOR_H

namespace MavixApiLite {

// GLib makes a main context for every synchronous call, and stops the process when there is no descriptor for
// it. So the process keeps some spare ones. A lender gives one back for the time of a call and takes another
// afterwards: as many calls at a time as there are spare ones never take a descriptor from each other. Any
// thread. Other code of the process may still take it before GLib does.
class TCDescriptorLender final {
public:
    TCDescriptorLender();
    ~TCDescriptorLender();
    TCDescriptorLender(const TCDescriptorLender&) = delete;
    TCDescriptorLender& operator=(const TCDescriptorLender&) = delete;

    // False: no descriptor could be had, and GLib must not be asked for a context.
    bool HasLent() const { return m_hasLent; }

private:
    bool m_isSpare = false;
    bool m_hasLent = false;
};

// Whether as many descriptors are free as connecting takes. Any thread.
bool AreDescriptorsLeftToConnect();

// The same for a connection whose synchronous calls take descriptors: keeps spare ones if there are enough.
bool CanConnectWithDescriptors();

} // namespace MavixApiLite

#endif
