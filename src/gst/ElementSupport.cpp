#include "ElementSupport.h"

#include <miscutils/MiscUtils.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

namespace vrxGst {

bool checkAddress(GstElement* element, const std::string& address, const char* example)
{
    if (address.empty())
    {
        GST_ELEMENT_ERROR(element, RESOURCE, SETTINGS, ("No address set"),
                          ("Set the property 'address' to the stream's sidechannel address, e.g. %s", example));
        return false;
    }
    if (address.size() > maxAddressLength)
    {
        GST_ELEMENT_ERROR(element, RESOURCE, SETTINGS, ("Address too long"),
                          ("'address' has %zu bytes; at most %zu are used", address.size(), maxAddressLength));
        return false;
    }
    return true;
}

bool ensureSenderDirectory(GstElement* element)
{
    const char* tmpdir = std::getenv("TMPDIR");
    const std::string directory = tmpdir != nullptr ? tmpdir : "/tmp/vrx";
    struct stat status
    {};
    if (!directory.empty() && stat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
        return true;
    if (!directory.empty() && mkdir(directory.c_str(), 01777) == 0)
    {
        // The umask narrows mkdir's mode; every user's senders and receivers meet here.
        chmod(directory.c_str(), 01777);
        GST_INFO_OBJECT(element, "created %s, where senders appear and receivers look", directory.c_str());
        return true;
    }
    if (errno == EEXIST && stat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
        return true; // made by another process in the meantime
    const std::string reason = directory.empty() ? "TMPDIR is set but empty" : miscUtils::strerror_r_safe(errno);
    GST_ELEMENT_ERROR(element, RESOURCE, OPEN_READ_WRITE, ("No directory for streams"),
                      ("'%s', where senders appear and receivers look ($TMPDIR, default /tmp/vrx): %s",
                       directory.c_str(), reason.c_str()));
    return false;
}

} // namespace vrxGst
