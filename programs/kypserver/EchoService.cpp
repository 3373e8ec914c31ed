#include "kypserver/EchoService.h"

namespace kypserver {

unsigned short CEchoService::port() const {
    return kPortEcho;
}

void CEchoService::serve(Request const& request) {
    answer(request, request.head.error, request.data, static_cast<int>(request.size));
}

}  // namespace kypserver
