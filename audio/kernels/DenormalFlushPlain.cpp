#include "DenormalFlush.h"

DenormalFlush::DenormalFlush() noexcept = default;
DenormalFlush::~DenormalFlush() = default;
