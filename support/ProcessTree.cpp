#include "support/ProcessTree.h"
