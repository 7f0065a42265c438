// Loaded before a program, gives it one faked card, which does not wait for it.
#include "FakedCards.h"

namespace {

[[maybe_unused]] const int card = [] {
    FakedCardOptions options;
    options.isElastic = false;
    return FakedCards::plug(options);
}();

} // namespace
