#include "support/QORUnicodeString.h"
