#include "zothread.h"

ZoExtendedBase::~ZoExtendedBase() = default;
