#define QV_TEMPLATE template
#include "support/json.h"
