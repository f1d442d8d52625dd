#include "support/CheckSum.h"
