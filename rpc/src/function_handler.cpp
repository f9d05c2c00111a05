// SPDX-License-Identifier: Apache-2.0
#include "orvi/function_handler.h"

#include <google/protobuf/message_lite.h>

namespace orvi {

void FunctionHandler::answer(const google::protobuf::MessageLite& message) {
    std::string bytes;
    message.SerializeToString(&bytes);
    send_message(bytes.data(), static_cast<unsigned int>(bytes.size()));
    set_done();
}

}  // namespace orvi
