// SPDX-License-Identifier: Apache-2.0
// Handler proxies of every command the board serves.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "orvi/function_handler.h"
#include "orvi/protocol.h"

namespace qord_sim {

class Board;

// Every command but the upgrade is one function of its request.
using Handler = orvi::FunctionHandler;

// Full command name -> factory, with the board's misbehaviour options
// applied (refused commands are left out by the caller).
std::map<std::string, std::shared_ptr<orvi::ProxyFactory>> make_handler_factories(Board& board);

// The upgrade command. The new firmware's magic is a digest of the image;
// an image whose first line is "QORFW <version>" names its version.
std::shared_ptr<orvi::Proxy> make_upgrade_handler(orvi::Protocol& protocol, Board& board);

}  // namespace qord_sim
