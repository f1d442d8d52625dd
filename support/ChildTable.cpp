#include "support/ChildTable.h"
