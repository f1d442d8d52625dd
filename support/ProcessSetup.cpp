#include "support/ProcessSetup.h"
