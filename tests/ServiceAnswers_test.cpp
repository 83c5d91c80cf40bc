/*
 * Copyright (C) 2026 The libVistrel Authors
 *
 * Licensed under the Apache License, Version 2.0 (the "License");
 * you may not use this file except in compliance with the License.
 * You may obtain a copy of the License at
 *
 *      http://www.apache.org/licenses/LICENSE-2.0
 *
 * Unless required by applicable law or agreed to in writing, software
 * distributed under the License is distributed on an "AS IS" BASIS,
 * WITHOUT WARRANTIES OR CONDITIONS OF ANY KIND, either express or implied.
 * See the License for the specific language governing permissions and
 * limitations under the License.
 */

// Every operation that is one service call in the value, yes/no or no-result
// form: its arguments reach the service unchanged, the service's answer comes
// back as the caller's result without a log line, and a transport failure
// gives the operation's failure result with exactly one "<method> Error" line.
// An operation asked twice asks the service twice: nothing is kept.

#include <gtest/gtest.h>
#include <limits.h>

#include <functional>

#include "support/LibraryTest.h"

namespace mirova::test {
namespace {

// What the service answers, in whichever result form the method has.
struct Answer {
    bool fails;
    int32_t value;

    static Return<void> as(Return<void>* /*form*/, int32_t /*value*/) { return Void(); }
    static Return<bool> as(Return<bool>* /*form*/, int32_t value) { return value != 0; }
    static Return<int32_t> as(Return<int32_t>* /*form*/, int32_t value) { return value; }

    template <typename Result, typename ArgumentTuple>
    Result Perform(const ArgumentTuple& /*args*/) const {
        if (fails) return Result(transportFailure());
        return as(static_cast<Result*>(nullptr), value);
    }
};
using AnswerAction = ::testing::PolymorphicAction<Answer>;

struct Operation {
    const char* method;
    std::function<void(FakeHdmiUtil&, AnswerAction)> expect;  // the call the service must see
    std::function<int()> call;                                // the caller's call; 0 for void
    int32_t answer;                                           // the service's answer
    int result;                                               // what the caller gets for it
    int failed;  // what the caller gets after a transport failure
};

const OutputFormat kSent = OutputFormat{0x80, 16, 0, 255, 255, 0, 2, 0};
const _HDMI_OUTPUT_FORMAT kFormat = callerFormat(kSent);

#define EXPECTING(expectation) \
    [](FakeHdmiUtil& f, AnswerAction a) { EXPECT_CALL(f, expectation).WillOnce(a); }
#define CALLING(expression) [] { return (expression); }
#define CALLING_VOID(statement) CALLING((statement, 0))
// An operation whose entry point is hdmi_<method> with the service call's arguments.
#define SAME(method, args, ...) \
    { #method, EXPECTING(method args), CALLING(hdmi_##method args), __VA_ARGS__ }
#define SAME_VOID(method, args) \
    { #method, EXPECTING(method args), CALLING_VOID(hdmi_##method args), 0, 0, 0 }

// clang-format off
const Operation kOperations[] = {
    // Value form: the answer is the result, a failure gives DEAD_OBJECT.
    {"setOutputFormat", EXPECTING(setOutputFormat(kSent, 0)),
     CALLING(hdmi_setOutputFormat(&kFormat, 0)), 7, 7, kDeadObject},
    {"setOutputFormat", EXPECTING(setOutputFormat(kSent, INT_MIN)),
     CALLING(hdmi_setOutputFormat(&kFormat, INT_MIN)), -22, -22, kDeadObject},
    SAME(setHDMIFormat3D, (-1, -0.75f), -22, -22, kDeadObject),
    SAME(setVideoFps, (INT_MAX, INT_MIN), INT_MAX, INT_MAX, kDeadObject),
    SAME(acquireLock, (5), 0x7fff1234, 0x7fff1234, kDeadObject),
    SAME(envSupportsDv, (), 11, 11, kDeadObject),
    SAME(readHDRAutoProperty, (), -12, -12, kDeadObject),
    SAME(isUnderDoviMode, (-3), INT_MAX, INT_MAX, kDeadObject),
    SAME(checkHDRModeSupported, (INT_MIN), 14, 14, kDeadObject),
    {"control5v", EXPECTING(control5v(-2)), CALLING(hdmi_control_5v(-2)), -77, -77, kDeadObject},
    SAME(readColorModeEnum, (), -5, -5, kDeadObject),
    SAME(readEdidAutoMode, (), -6, -6, kDeadObject),
    SAME(emulateFwCallbackHDRType, (-1, 2), 9, 9, kDeadObject),
    SAME(getDiffSourceValue, (), -7, -7, kDeadObject),
    SAME(setDiffSourceValue, (-4), -3, -3, kDeadObject),
    SAME(getVRREnabled, (), -8, -8, kDeadObject),
    SAME(getPropVal, (9), 1, 1, kDeadObject),
    SAME(getPropVal, (9), 0, 0, kDeadObject),
    SAME(getPropVal, (INT_MIN), INT_MAX, INT_MAX, kDeadObject),
    {"getPropVal", EXPECTING(getPropVal(0)), CALLING(hdmi_getIgnoreEdidValue()), 11, 11,
     kDeadObject},
    {"getPropVal", EXPECTING(getPropVal(1)), CALLING(hdmi_getIgnoreHotplugValue()), -38, -38,
     kDeadObject},
    // Supported only when the service answers exactly 1.
    {"isOutputFormatSupported", EXPECTING(isOutputFormatSupported(kSent)),
     CALLING(hdmi_isOutputFormatSupported(kFormat)), 1, 0, kDeadObject},
    {"isOutputFormatSupported", EXPECTING(isOutputFormatSupported(kSent)),
     CALLING(hdmi_isOutputFormatSupported(kFormat)), 2, kBadValue, kDeadObject},
    {"isOutputFormatSupported", EXPECTING(isOutputFormatSupported(kSent)),
     CALLING(hdmi_isOutputFormatSupported(kFormat)), 0, kBadValue, kDeadObject},

    // No-result form with a result for the caller: 0, or DEAD_OBJECT.
    SAME(setPropVal, (INT_MIN, INT_MAX), 0, 0, kDeadObject),
    {"setPropVal", EXPECTING(setPropVal(0, 33)), CALLING(hdmi_setIgnoreEDIDValue(33)), 0, 0,
     kDeadObject},
    {"setPropVal", EXPECTING(setPropVal(1, -44)), CALLING(hdmi_setIgnoreHotplugValue(-44)), 0, 0,
     kDeadObject},
    SAME(setVRREnable, (-7), 0, 0, kDeadObject),
    SAME(setVRRFps, (-7), 0, 0, kDeadObject),
    SAME(setALLM, (-7), 0, 0, kDeadObject),
    SAME(saveColorModeEnum, (-7), 0, 0, kDeadObject),
    SAME(saveEdidAutoMode, (-7), 0, 0, kDeadObject),
    {"saveOutputFormat", EXPECTING(saveOutputFormat(kSent)),
     CALLING(hdmi_saveOutputFormat(&kFormat)), 0, 0, kDeadObject},
    SAME(clearOneStepInfo, (), 0, 1, kDeadObject),

    // No result at all: a failure is only logged.
    SAME_VOID(setHDMIEnable, (-7)),
    SAME_VOID(setDisplayState, (-7)),
    SAME_VOID(getHidlInfo, (-7, 5)),
    SAME_VOID(releaseLock, (-3)),
    SAME_VOID(setHDREotfMode, (7)),
    SAME_VOID(getSinkCapability, ()),

    // Yes/no form: 1 or 0, and 0 after a failure.
    SAME(checkIfHDMIPlugged, (), 1, 1, 0),
    SAME(checkIfHDMIPlugged, (), 0, 0, 0),
    SAME(getHDMIEDIDReady, (), 1, 1, 0),
    SAME(getHDMIEDIDReady, (), 0, 0, 0),
    SAME(isTVSupport3D, (), 1, 1, 0),
    SAME(isTVSupport3D, (), 0, 0, 0),
    SAME(getForceOffVal, (), 1, 1, 0),
    SAME(getForceOffVal, (), 0, 0, 0),
};
// clang-format on

class ServiceAnswersTest : public InstanceTest {};

TEST_F(ServiceAnswersTest, ArgumentsAnswersAndTransportFailures) {
    for (const Operation& op : kOperations) {
        SCOPED_TRACE(::testing::Message() << op.method << " answering " << op.answer);
        LogCapture::clear();
        op.expect(*fake, ::testing::MakePolymorphicAction(Answer{false, op.answer}));
        EXPECT_EQ(op.call(), op.result);
        EXPECT_EQ(problemLines(), 0);
        op.expect(*fake, ::testing::MakePolymorphicAction(Answer{true, 0}));
        EXPECT_EQ(op.call(), op.failed);
        EXPECT_EQ(errorLines(op.method), 1);
        EXPECT_EQ(problemLines(), 1);
        ::testing::Mock::VerifyAndClearExpectations(fake.get());
    }
}

}  // namespace
}  // namespace mirova::test
