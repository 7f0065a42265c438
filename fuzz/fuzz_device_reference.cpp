// Device references from stored texts: the result is no reference, or a reference that fulfils its contract.
// Two lines are parsed as two references, which are also compared.

#include "CXJSON.h"
#include "DXRDeviceReference.h"
#include "Fuzz.h"

namespace {

void checkAlone(const DXRDeviceReference& reference)
{
    mustHold(isDeviceReference(reference.string()), "a reference looks like one");
    mustHold(reference.isEqual(&reference) && reference.isGenericallyEqual(&reference),
             "it is equal to itself");
    const CXRef<DXRDeviceReference> whole = reference.deviceReferenceWithInput(std::nullopt);
    if (!whole) // the new text may exceed the maximum length: its numbers may have more digits
        return;
    mustHold(whole->isInput() == std::nullopt, "without direction");
    for (const bool input : {true, false}) {
        const CXRef<DXRDeviceReference> directed = reference.deviceReferenceWithInput(input);
        if (!directed)
            continue;
        mustHold(directed->isInput() == input, "with a direction");
        mustHold(!directed->isEqual(whole.get()), "a direction counts");
        const CXRef<DXRDeviceReference> again = DXRDeviceReference::initWithString(directed->string());
        mustHold(bool(again), "what was written can be read");
        mustHold(again->deviceUID() == directed->deviceUID() && again->genericUID() == directed->genericUID(),
                 "and says the same");
        // A generic reference without a transport is generically equal to none.
        const bool isAlike = !again->isGeneric() || again->isGenericallyEqual(directed.get());
        mustHold(!directed->deviceUID() || again->isEqual(directed.get()) == isAlike, "and is equal");
        mustHold(again->hash() == directed->hash(), "with an equal hash");
    }
}

void checkPair(const DXRDeviceReference& a, const DXRDeviceReference& b)
{
    mustHold(a.isEqual(&b) == b.isEqual(&a), "equality has no direction");
    mustHold(a.isGenericallyEqual(&b) == b.isGenericallyEqual(&a), "nor has generic equality");
    mustHold(!a.isEqual(&b) || a.exactHash() == b.exactHash(), "equal ones are found");
    mustHold(!a.isGenericallyEqual(&b) || a.genericHash() == b.genericHash(), "generically equal ones too");
    mustHold(a.isEqual(b.string()) == a.isEqual(&b) || &a == &b || !b.deviceUID(), "texts are as good");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    const FuzzedText text(bytes, size);
    for (const std::string_view each : {text.whole, text.first, text.second})
        if (const CXRef<DXRDeviceReference> reference = DXRDeviceReference::initWithString(each)) {
            mustHold(reference->string() == each, "the text is kept");
            checkAlone(*reference);
        }
    const CXRef<DXRDeviceReference> first = DXRDeviceReference::initWithString(text.first);
    const CXRef<DXRDeviceReference> second = DXRDeviceReference::initWithString(text.second);
    if (first && second)
        checkPair(*first, *second);
    return 0;
}
