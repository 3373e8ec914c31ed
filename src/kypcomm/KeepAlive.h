// The keep-alive of every TCP connection, on both sides: a silent peer counts as dead after 165
// seconds. Any thread; inside the library only.
#ifndef KYP_SRC_KYPCOMM_KEEPALIVE_H
#define KYP_SRC_KYPCOMM_KEEPALIVE_H

// Sets the four options in order. False at the first that the kernel refuses, with the reason
// logged; those behind it are left as they are.
bool set_keep_alive(int fd);

#endif
