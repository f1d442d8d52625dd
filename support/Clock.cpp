#include "support/Clock.h"
