// Preloaded into a program, this library adds one faked card whose clock does not wait for the program.
#include "FakedCards.h"

namespace {

[[maybe_unused]] const int card = [] {
    FakedCardOptions options;
    options.isElastic = false;
    return FakedCards::plug(options);
}();

} // namespace
