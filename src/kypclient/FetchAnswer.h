// The second half of the split way of asking, for every transport.
#ifndef KYP_KYPCLIENT_FETCHANSWER_H
#define KYP_KYPCLIENT_FETCHANSWER_H

class IKypPeerConnection;

// What IKypPeerConnection::raw_recv tells, on `conn`.
int fetch_answer(IKypPeerConnection& conn, unsigned short* port, char* buf, int len, int timeoutMs);

#endif
