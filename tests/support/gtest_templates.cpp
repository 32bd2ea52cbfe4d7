#define QV_TEMPLATE template
#include "support/gtest_templates.h"
