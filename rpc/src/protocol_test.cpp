#include "orvi/protocol.h"
#include <gtest/gtest.h>
