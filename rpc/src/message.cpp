// SPDX-License-Identifier: Apache-2.0
#include "orvi/message.h"

#include <google/protobuf/stubs/common.h>

namespace orvi {

ProtoBufCleanup::~ProtoBufCleanup() {
    google::protobuf::ShutdownProtobufLibrary();
}

}  // namespace orvi
