#include "AggregateComposition.h"

#include "CXValue.h"
#include "DXRPropertyAddress.h"

CXPlist aggregateComposition(AudioObjectID deviceID)
{
    const auto value =
        CXRefCast<CXValue>(DXRPropertyAddress::aggregateComposition()->objectForObjectID(deviceID));
    return value && value->plist().is_object() ? value->plist() : CXPlist();
}
