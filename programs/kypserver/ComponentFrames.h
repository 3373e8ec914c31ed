// The frames between this server and a component, made without copying a payload: heads are taken
// off and put on in front of it, in the buffer in which it came. Each message stands behind its
// first two heads and gives its buffer away; the new one stands at the start of a whole frame and
// is ready for a connection's send queue. It stays in receive mode, since its bytes need not end
// where their block ends.
#ifndef KYP_PROGRAMS_KYPSERVER_COMPONENTFRAMES_H
#define KYP_PROGRAMS_KYPSERVER_COMPONENTFRAMES_H

#include <cstdint>
#include <memory>

#include "kypcomm/KypWire.h"
#include "kypcomm/pbuf/CMsgHeader.h"

namespace kypserver {

// The same message with the same buffer, for whoever keeps it longer than the worker does.
std::unique_ptr<CMsgHeader> take_over(CMsgHeader& msg);

// A client's request as its component gets it: with the client's number in front of the payload.
// `msg` has its third head and is not so long that the component could not take it.
std::unique_ptr<CMsgHeader> make_forwarded(CMsgHeader& msg, _KypHeader head, _AoEHeader const& aoe,
                                           uint16_t number);

// Whether `msg` has a third head, and whether a component takes it when it is forwarded.
bool has_address(CMsgHeader& msg);
bool is_forwardable(_KypHeader const& head);

// The forward head of an answer. Returns false when the message is too short for it.
bool read_forward_head(CMsgHeader& msg, _KypforwardHeader& forward);

// A component's answer as the client gets it: without its forward head, which is there.
std::unique_ptr<CMsgHeader> make_answer(CMsgHeader& msg, _KypHeader head, _AoEHeader const& aoe);

// Queues a whole frame on `conn`, in whichever mode it is.
void send_frame(CSocketConnection* conn, std::unique_ptr<CMsgHeader> frame);

// Tells a component that client `number`, which has called `port`, has gone.
std::unique_ptr<CMsgHeader> make_leave(unsigned short port, uint16_t number);

}  // namespace kypserver

#endif
