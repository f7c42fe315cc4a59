#include "ElementSupport.h"

#include <miscutils/MiscUtils.h>
#include <voraxis/SideChannel.h>

#include <cerrno>

namespace vrxGst {

bool checkAddress(GstElement* element, const std::string& address, const char* example)
{
    if (address.empty())
    {
        GST_ELEMENT_ERROR(
            element, RESOURCE, SETTINGS, ("No address set"),
            ("Set the property 'address' to the stream's sidechannel address, e.g. %s", example));
        return false;
    }
    if (address.size() > vrx::MaxSocketAddressLength)
    {
        GST_ELEMENT_ERROR(
            element, RESOURCE, SETTINGS, ("Address too long"),
            ("'address' has %zu bytes; at most %zu are used", address.size(), vrx::MaxSocketAddressLength));
        return false;
    }
    return true;
}

bool ensureSenderDirectory(GstElement* element)
{
    const std::string directory = vrx::getSenderParentDirectory();
    switch (vrx::makeSenderParentDirectory())
    {
    case vrx::SenderParentDirectory::Existing: return true;
    case vrx::SenderParentDirectory::Created:
        GST_INFO_OBJECT(element, "created %s, where senders appear and receivers look", directory.c_str());
        return true;
    case vrx::SenderParentDirectory::NotADirectory: errno = ENOTDIR; break;
    case vrx::SenderParentDirectory::Failed: break;
    }
    const std::string reason =
        directory.empty() ? "TMPDIR is set but empty" : miscUtils::strerror_r_safe(errno);
    GST_ELEMENT_ERROR(element, RESOURCE, OPEN_READ_WRITE, ("No directory for streams"),
                      ("'%s', where senders appear and receivers look ($TMPDIR, default /tmp/vrx): %s",
                       directory.c_str(), reason.c_str()));
    return false;
}

} // namespace vrxGst
