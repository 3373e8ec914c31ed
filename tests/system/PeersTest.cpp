#include <gtest/gtest.h>

#include "support/FrameBytes.h"
#include "support/RawPeer.h"

namespace {

TEST(FrameBytesTest, ARequestIsTheseBytes) {
    EXPECT_EQ(
        "00 01 C8 00 17 00 00 00 "
        "00 00 00 00 00 00 00 07 00 09 00 00 00 "
        "00 00 00 10 00 00 00 20 "
        "41 42",
        hex(request_frame(200, 9, 7, 0x10, 0x20, text("AB"))));
}

TEST(FrameBytesTest, AResponseIsTheseBytes) {
    EXPECT_EQ(
        "00 01 C8 00 0F 00 00 00 "
        "00 00 00 00 00 00 00 07 00 09 00 00 01 "
        "43 44",
        hex(response_frame(200, 9, 7, text("CD"))));
}

TEST(FrameBytesTest, APublicationIsTheseBytes) {
    EXPECT_EQ(
        "00 01 67 00 40 00 00 00 "
        "00 00 00 00 00 00 00 05 00 08 00 00 00 "
        "00 00 00 01 00 00 00 02 "
        "03 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 04 00 00 00 00 00 00 00 "
        "70 75 62 00 74 00 44 41 54 41 00 01 00 00 00 02 00 00 00",
        hex(publish_frame(5, "t", text("DATA"), 1, 2)));
}

TEST(FrameBytesTest, TakesApartWhatItPutTogether) {
    FrameParts const parts = take_apart(delivery_frame(9, "topic", text("data"), 3, 4));
    PubSubParts const body = take_body_apart(parts.rest);

    ASSERT_TRUE(parts.whole);
    EXPECT_EQ(103, parts.port);
    EXPECT_EQ(9u, parts.invokeId);
    EXPECT_EQ(8, parts.cmd);
    ASSERT_TRUE(body.whole);
    EXPECT_EQ("pub", body.type);
    EXPECT_EQ("topic", body.topic);
    EXPECT_EQ(text("data"), body.data);
    EXPECT_EQ(3u, body.indexGroup);
    EXPECT_EQ(4u, body.indexOffset);
}

TEST(FrameBytesTest, RefusesABodyWhoseLengthsDoNotFit) {
    Bytes body = pubsub_body("pub", "topic", text("data"));
    body[8] = 0xff;

    EXPECT_FALSE(take_body_apart(body).whole);
}

TEST(RawPeerTest, CarriesBytesBothWays) {
    RawListener listener = RawListener::unix_path("/var/tmp/kyp/socket");
    RawPeer near = RawPeer::connect_unix("/var/tmp/kyp/socket");
    RawPeer far = listener.accept();

    EXPECT_TRUE(near.send(bytes("01 02 03")));
    EXPECT_EQ(bytes("01 02 03"), far.receive(3));
    EXPECT_TRUE(far.send(response_frame(200, 9, 7, text("CD"))));
    EXPECT_EQ(response_frame(200, 9, 7, text("CD")), near.receive_frame());
}

TEST(RawPeerTest, GivesWhatThereIsWhenTheFarEndCloses) {
    RawListener listener = RawListener::tcp();
    RawPeer near = RawPeer::connect_tcp(listener.port());
    RawPeer far = listener.accept();
    far.send(bytes("01 02"));
    far.close();

    EXPECT_EQ(bytes("01 02"), near.receive(5));
    EXPECT_TRUE(near.expect_closed());
}

TEST(RawPeerTest, TellsAResetFromNothing) {
    RawListener listener = RawListener::tcp();
    RawPeer near = RawPeer::connect_tcp(listener.port());
    listener.accept().reset();

    EXPECT_TRUE(near.expect_closed());
}

TEST(RawPeerTest, StopsSendingToAPeerThatDoesNotRead) {
    RawListener listener = RawListener::tcp();
    RawPeer near = RawPeer::connect_tcp(listener.port());
    RawPeer far = listener.accept();

    EXPECT_FALSE(near.send(pattern(64 << 20), std::chrono::milliseconds(100)));
}

TEST(RawUdpTest, TellsWhereADatagramCameFrom) {
    RawUdp near, far;
    ASSERT_TRUE(near.send_to(far.port(), text("AB")));

    RawDatagram const got = far.receive();

    EXPECT_EQ(text("AB"), got.data);
    EXPECT_EQ("127.0.0.1", got.host);
    EXPECT_EQ(near.port(), got.port);
}

}  // namespace
