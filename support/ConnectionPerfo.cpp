#include "support/ConnectionPerfo.h"
