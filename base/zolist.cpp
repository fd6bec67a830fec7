#include "zolist.h"
