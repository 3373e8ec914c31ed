#include "kypserver/StateService.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "FakeConn.h"

namespace kypserver {
namespace {

class StateServiceTest : public testing::Test {
protected:
    FrameParts ask(uint16_t cmd, uint32_t group = 0, uint32_t offset = 0, Bytes const& data = {}) {
        m_conn.m_sent.clear();
        _msg_request const head = {1, cmd, 7, group, offset, 0, &m_conn};
        m_state.serve({m_state.port(), reinterpret_cast<char const*>(data.data()),
                       static_cast<unsigned int>(data.size()), head});
        return m_conn.m_sent.empty() ? FrameParts{} : take_apart(m_conn.m_sent[0]);
    }

    CStateService m_state;
    FakeConn m_conn;
};

TEST_F(StateServiceTest, AnswersOneObjectWithItsSectionsInOrder) {
    m_state.add([](nlohmann::ordered_json& state) { state["zeta"] = 1; });
    m_state.add([](nlohmann::ordered_json& state) { state["alpha"]["beta"] = "two"; });

    FrameParts const answer = ask(KYP_CMD_READ_WRITE);

    EXPECT_EQ(104, answer.port);
    EXPECT_EQ(0u, answer.error);
    EXPECT_EQ(R"({"zeta":1,"alpha":{"beta":"two"}})",
              std::string(answer.rest.begin(), answer.rest.end()));
}

TEST_F(StateServiceTest, IsAnEmptyObjectWithoutSections) {
    EXPECT_EQ("{}", m_state.text());
}

TEST_F(StateServiceTest, SectionsAreAskedForEachAnswer) {
    int asked = 0;
    m_state.add([&](nlohmann::ordered_json& state) { state["asked"] = ++asked; });

    EXPECT_EQ(R"({"asked":1})", m_state.text());
    EXPECT_EQ(R"({"asked":2})", m_state.text());
}

TEST_F(StateServiceTest, ReplacesWhatIsNoText) {
    m_state.add([](nlohmann::ordered_json& state) { state["name"] = "a\xff"; });

    EXPECT_EQ("{\"name\":\"a\xEF\xBF\xBD\"}", m_state.text());
}

TEST_F(StateServiceTest, TellsWhatIsWrongWithARequest) {
    EXPECT_EQ(0x1009u, ask(KYP_CMD_READ).error);
    EXPECT_EQ(0x1002u, ask(KYP_CMD_READ_WRITE, 1).error);
    EXPECT_EQ(0x1003u, ask(KYP_CMD_READ_WRITE, 0, 1).error);
    EXPECT_EQ(0x1004u, ask(KYP_CMD_READ_WRITE, 0, 0, {1}).error);
}

TEST_F(StateServiceTest, IsSilentWhereNobodyAwaitsAnAnswer) {
    for (uint16_t const cmd : {KYP_CMD_SUBSCRIBE, KYP_CMD_UNSUBSCRIBE, KYP_CMD_PUBLISH}) {
        EXPECT_FALSE(ask(cmd).whole) << cmd;
    }
}

}  // namespace
}  // namespace kypserver
