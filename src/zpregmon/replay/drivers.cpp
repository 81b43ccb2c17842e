#include "zpregmon/replay/drivers.h"

#include "driver/driver_entry.h"
#include "supportlib/driver_entry.h"

namespace zpregmon {

platform::DriverImage SupportLibraryImage() {
    platform::DriverImage image;
    image.name = u"zpklib";
    image.entry = ZPkDriverEntry;
    image.poolTags.assign(zpklib::kPoolTags.begin(), zpklib::kPoolTags.end());
    return image;
}

platform::DriverImage RegistryMonitorImage() {
    platform::DriverImage image;
    image.name = u"zpregflt";
    image.entry = FxDriverEntry;
    image.poolTags.assign(std::begin(zpregflt::kPoolTags), std::end(zpregflt::kPoolTags));
    return image;
}

}  // namespace zpregmon
