#include "orvi/transport_simple_socket_server.h"
#include <gtest/gtest.h>
