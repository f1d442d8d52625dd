#include "support/BaseSocket.h"
