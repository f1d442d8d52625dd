#include "support/QORLists.h"
