#include "support/BaseProcess.h"
