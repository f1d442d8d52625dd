#include "support/Account.h"
