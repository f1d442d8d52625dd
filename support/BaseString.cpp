#include "support/BaseString.h"
