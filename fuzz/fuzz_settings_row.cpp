// A row of the settings as another program may have written it: the first line is the key, the rest the
// value.

#include "DXRDeviceOverridesIndex.h"
#include "Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    const FuzzedText text(bytes, size);
    const std::string key(text.first);
    const CXRef<DXRDeviceOverridesEntry> entry =
        DXRDeviceOverridesEntry::initWithRow(key, dxr::DefaultsRow::initWithValue(std::string(text.second)));
    if (entry) {
        mustHold(entry->key() == key, "the key is kept");
        mustHold(entry->overrides().is_object(), "an entry is a dictionary");
    }
    return 0;
}
