// The service object: parsing, routing and answering requests.
#include <functional>
#include <thread>

#include "testing/library_test.h"

namespace quil::tests {

using namespace hardware::quilservicemanager::implementation;  // NOLINT: the thing tested
using android::hardware::hidl_vec;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class Service : public LibraryTest {
  protected:
    android::sp<OpenService> service = new OpenService;
    tclvMsg msg;
};

class RequestParser : public Service {};

TEST_F(RequestParser, EightBytesParseToAnEmptyBodyWhateverTheDeclaredLength) {
    EXPECT_EQ(service->convertRequestToTclvMsg(
                  Bytes{0x04, 0x03, 0x02, 0x01, 0xCD, 0xAB, 0x77, 0x66}, &msg),
              0);
    EXPECT_EQ(msg.cmd, 0x01020304U);
    EXPECT_EQ(msg.errCode, 0xABCD);
    EXPECT_EQ(msg.length, 0);
    EXPECT_THAT(msg.msgBody, IsEmpty());
}

TEST_F(RequestParser, BytesThatCameWinOverTheDeclaredLength) {
    EXPECT_EQ(service->convertRequestToTclvMsg(Bytes{1, 0, 0, 0, 0, 0, 0x10, 0, 7, 8, 9}, &msg), 0);
    EXPECT_EQ(msg.length, 3);
    EXPECT_THAT(msg.msgBody, ElementsAre(7, 8, 9));
}

TEST_F(RequestParser, EarlierBodyIsReplaced) {
    msg.msgBody = {9, 9, 9, 9};
    EXPECT_EQ(service->convertRequestToTclvMsg(Bytes{1, 0, 0, 0, 0, 0, 1, 0, 7}, &msg), 0);
    EXPECT_THAT(msg.msgBody, ElementsAre(7));
}

TEST_F(RequestParser, DebugMessagesShowEveryByteTheHeaderAndTheRepair) {
    setLogLevel("D");
    EXPECT_EQ(service->convertRequestToTclvMsg(Bytes{0x0A, 0, 0, 0xF0, 0, 0, 2, 0, 0xFF}, &msg), 0);
    EXPECT_THAT(
        board.log(ANDROID_LOG_DEBUG),
        ElementsAre("convertRequestToTclvMsg: all request[0] = a\n",
                    "convertRequestToTclvMsg: all request[1] = 0\n",
                    "convertRequestToTclvMsg: all request[2] = 0\n",
                    "convertRequestToTclvMsg: all request[3] = f0\n",
                    "convertRequestToTclvMsg: all request[4] = 0\n",
                    "convertRequestToTclvMsg: all request[5] = 0\n",
                    "convertRequestToTclvMsg: all request[6] = 2\n",
                    "convertRequestToTclvMsg: all request[7] = 0\n",
                    "convertRequestToTclvMsg: all request[8] = ff\n",
                    "convertRequestToTclvMsg: request msg->cmd = 0xF000000A, msg->errCode = "
                    "0x0000, msg->length = 0x0002\n",
                    "convertRequestToTclvMsg: msg->length(0x2) is not eq to msgBody's size(0x1), "
                    "resize\n",
                    "convertRequestToTclvMsg: msgBody[0] = 0xff\n"));
}

TEST_F(RequestParser, NullMessageFailsAtDebugLevelOnly) {
    EXPECT_EQ(service->convertRequestToTclvMsg(Bytes(8), nullptr), -1);
    EXPECT_THAT(board.log(), IsEmpty());
    setLogLevel("D");
    EXPECT_EQ(service->convertRequestToTclvMsg(Bytes(8), nullptr), -1);
    EXPECT_THAT(board.log(), ElementsAre("convertRequestToTclvMsg: invalid tclv Msg is NULL\n"));
}

class RefusedSize : public Service, public testing::WithParamInterface<size_t> {};

TEST_P(RefusedSize, OfARequestFailsAtDebugLevelOnlyAndLeavesTheMessageAlone) {
    msg.cmd = 77;
    EXPECT_EQ(service->convertRequestToTclvMsg(Bytes(GetParam()), &msg), -1);
    EXPECT_EQ(msg.cmd, 77U);
    EXPECT_THAT(board.log(), IsEmpty());
    setLogLevel("D");
    EXPECT_EQ(service->convertRequestToTclvMsg(Bytes(GetParam()), &msg), -1);
    EXPECT_THAT(board.log(ANDROID_LOG_DEBUG),
                ElementsAre("convertRequestToTclvMsg: request length < 0 is invalid.\n"));
}

INSTANTIATE_TEST_SUITE_P(EmptyShortOrBeyondTheLengthField, RefusedSize,
                         testing::Values(0, 1, 2, 3, 4, 5, 6, 7, 8 + 65536));

TEST_F(RequestParser, BodyOf65535BytesIsTheLongest) {
    EXPECT_EQ(service->convertRequestToTclvMsg(Bytes(8 + 65535), &msg), 0);
    EXPECT_EQ(msg.length, 65535);
    EXPECT_EQ(msg.msgBody.size(), 65535U);
}

struct Routed {
    uint32_t cmd;
    uint32_t type;
};
void PrintTo(const Routed& row, std::ostream* out) { *out << std::hex << row.cmd; }
class Routing : public Service, public testing::WithParamInterface<Routed> {};

TEST_P(Routing, MapsTheCommandToItsBusinessType) {
    setLogLevel("D");
    msg.cmd = GetParam().cmd;
    auto type = static_cast<hidl_service_type_t>(0);
    EXPECT_EQ(service->getBusinessTypeByTclvMsg(&msg, &type), 0);
    EXPECT_EQ(static_cast<uint32_t>(type), GetParam().type);
    EXPECT_THAT(board.log(ANDROID_LOG_DEBUG),
                ElementsAre("getBusinessTypeByTclvMsg: parse business type = " +
                            std::to_string(GetParam().type) + "\n"));
}

INSTANTIATE_TEST_SUITE_P(OfEachRange, Routing,
                         testing::Values(Routed{0, 1}, Routed{0x7FFFFFFF, 1}, Routed{0x80000000, 1},
                                         Routed{0xF5000001, 1}, Routed{0xF5000002, 4},
                                         Routed{0xFFFFFFEF, 4}, Routed{0xFFFFFFF0, 2},
                                         Routed{0xFFFFFFF1, 2}, Routed{0xFFFFFFF2, 4},
                                         Routed{0xFFFFFFF3, 4}, Routed{0xFFFFFFF4, 3},
                                         Routed{0xFFFFFFF5, 4}, Routed{0xFFFFFFFF, 4}));

TEST_F(Service, RoutingOfNullIsAnError) {
    hidl_service_type_t type = HIDL_SERVICE_TYPE_MCU;
    EXPECT_EQ(service->getBusinessTypeByTclvMsg(nullptr, &type), -1);
    EXPECT_EQ(service->getBusinessTypeByTclvMsg(&msg, nullptr), -1);
    EXPECT_THAT(board.log(ANDROID_LOG_ERROR),
                ElementsAre("getBusinessTypeByTclvMsg: invalid tclv msg or type is NULL\n",
                            "getBusinessTypeByTclvMsg: invalid tclv msg or type is NULL\n"));
}

TEST_F(Service, FactoryGivesAnEmptyServiceWhateverTheName) {
    const android::sp<IQuilServiceManager> made = HIDL_FETCH_IQuilServiceManager(nullptr);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->hwInvoke(Bytes{1}), -1);
    EXPECT_EQ(static_cast<OpenService*>(service.get())->recvData.size(), 0U);
    EXPECT_FALSE(service->mDataReady);
}

TEST_F(Service, RequestThatFailsToParseAnswersEmptyAndLogsAnError) {
    EXPECT_THAT(service->getBytes({}), IsEmpty());
    EXPECT_THAT(service->setBytes({1, 2, 3}), IsEmpty());
    EXPECT_THAT(board.log(), ElementsAre("get: convertRequestToTclvMsg failed, ret = -1\n",
                                         "set: convertRequestToTclvMsg failed, ret = -1\n"));
}

TEST_F(Service, InvalidTypeAnswersEmptyWithADebugMessageOnly) {
    EXPECT_THAT(service->getBytes({2, 0, 0, 0xF5, 0, 0, 0, 0}), IsEmpty());
    EXPECT_THAT(board.log(), IsEmpty());
    setLogLevel("D");
    EXPECT_THAT(service->setBytes({2, 0, 0, 0xF5, 0, 0, 0, 0}), IsEmpty());
    EXPECT_EQ(board.log().back(), "set: invalid hidl service type = 0x4\n");
}

TEST_F(Service, PowerControlAnswersEmptyAndLogsTheModeOnlyAtDebug) {
    parseProduct();
    EXPECT_THAT(service->setBytes({0xF0, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}), IsEmpty());
    EXPECT_THAT(board.log(), IsEmpty());
    setLogLevel("D");
    EXPECT_THAT(service->getBytes({0xF1, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}), IsEmpty());
    EXPECT_THAT(board.log(), Contains("get: process HIDL_SERVICE_TYPE_POWER_CONTROL\n"));
    EXPECT_THAT(board.log(), Contains("powerControl\n"));
    EXPECT_THAT(board.log(), Contains("normalPowerMode\n"));
}

TEST_F(Service, PowerModesLogThirteenFieldsOfTheConfiguration) {
    parseProduct();
    *config_info = {};
    strcpy(config_info->mcu_fw_path, "a");
    strcpy(config_info->mcu_fw_version, "b");
    strcpy(config_info->fpga_fw_path, "c");
    strcpy(config_info->fpga_fw_version, "d");
    config_info->mcu_type = 1;
    strcpy(config_info->mcu_sock_path, "e");
    strcpy(config_info->mcu_uart_path, "f");
    config_info->mcu_baud_rate = 2;
    config_info->mcu_wdt_switch = 3;
    config_info->mcu_wdt_pulse = 4;
    config_info->fpga_control_gpio = 5;
    config_info->fpga_config_gpio = 6;
    config_info->fpga_done_gpio = 7;
    setLogLevel("D");
    const std::string fields =
        "mcu_fw_path = a, mcu_fw_version = b, fpga_fw_path = c, fpga_fw_version = d, mcu_type = 1, "
        "mcu_sock_path = e, mcu_uart_path = f,     mcu_baud_rate = 2, mcu_witch_gpio_id = 3, "
        "mcu_pulse_gpio_id = 4, fpga_control_gpio_id = 5, fpga_config_gpio_id = 6, "
        "fpga_done_gpio_id = 7\n";
    EXPECT_EQ(service->lowPowerMode(), 0);
    EXPECT_EQ(service->normalPowerMode(), 0);
    EXPECT_THAT(board.log(ANDROID_LOG_DEBUG),
                ElementsAre("lowPowerMode\n", "lowPowerMode: " + fields, "normalPowerMode\n",
                            "normalPowerMode: " + fields));
}

TEST_F(Service, PowerModesBeforeTheParseLogTheirNameOnly) {
    setLogLevel("D");
    EXPECT_EQ(service->lowPowerMode(), 0);
    EXPECT_EQ(service->normalPowerMode(), 0);
    EXPECT_THAT(board.log(), ElementsAre("lowPowerMode\n", "normalPowerMode\n"));
}

TEST_F(Service, PowerControlOfAnotherCommandOrNullDoesNothing) {
    setLogLevel("D");
    msg.cmd = 5;
    EXPECT_EQ(service->powerControl(&msg), 0);
    EXPECT_EQ(service->powerControl(nullptr), 0);
    EXPECT_THAT(board.log(), ElementsAre("powerControl\n", "powerControl\n"));
}

TEST_F(Service, SetOfTheSelfTestAnswersEmptyAndRunsNothing) {
    setLogLevel("D");
    EXPECT_THAT(service->setBytes({0xF4, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}), IsEmpty());
    EXPECT_EQ(board.log().back(), "set: process HIDL_SERVICE_TYPE_SELF_TEST\n");
}

TEST_F(Service, StaleBytesAnswerTheNextRequestThatFillsNothingAndAreThenGone) {
    service->wakeUp(Bytes{5, 6});
    EXPECT_THAT(service->setBytes({0xF0, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}), ElementsAre(5, 6));
    EXPECT_THAT(service->setBytes({0xF0, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}), IsEmpty());
}

TEST_F(Service, EmptyResultCallbackThrowsAndTheRequestMutexIsFreeAfterwards) {
    const Bytes powerRequest = {0xF0, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0};
    EXPECT_THROW(service->get(powerRequest, nullptr), std::bad_function_call);
    EXPECT_THROW(service->set(powerRequest, nullptr), std::bad_function_call);
    EXPECT_THAT(service->getBytes(powerRequest), IsEmpty());
}

TEST_F(Service, ResultCallbackMayCallWakeUpAndItsBytesAreEmptiedWithTheRest) {
    service->get(Bytes{0xF0, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0},
                 [&](const hidl_vec<uint8_t>&) { service->wakeUp(Bytes{1}); });
    EXPECT_THAT(service->recvData, IsEmpty());
}

}  // namespace quil::tests
