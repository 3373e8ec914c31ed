// Port 100: sends back what came.
#ifndef KYP_PROGRAMS_KYPSERVER_ECHOSERVICE_H
#define KYP_PROGRAMS_KYPSERVER_ECHOSERVICE_H

#include "kypserver/Service.h"

namespace kypserver {

class CEchoService : public IService {
public:
    unsigned short port() const override;

    // The answer carries the data, the command, the invoke id and the error word of the request.
    void serve(Request const& request) override;
};

}  // namespace kypserver

#endif
