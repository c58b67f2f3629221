// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_SERVICECALL_H
#define TALLYRA_TESTS_FUZZ_SERVICECALL_H

#include "MessageBuilder.h"

#include <array>
#include <utility>

/// Makes a call of the service from an input of the target "message".
/// @return null when its wire form is malformed
inline TYMessagePtr MakeServiceCall(CBytes& bytes) {
    using Step = CMessageBuilder::Step;
    // The corpus counts on this order.
    static constexpr std::array kSteps = {
        Step::IMAGE,     Step::IMAGE,  Step::TEXT,      Step::NUMBER, Step::BYTES,
        Step::INT,       Step::STRING, Step::RAW_BYTES, Step::OTHER,  Step::NO_REPLY,
        Step::READDRESS, Step::IMAGES, Step::CONTAINER};
    TYMessagePtr call(dbus_message_new_method_call(TYBusNames::kService, TYBusNames::kPath,
                                                   TYBusNames::kInterface, TYBusNames::kMethod));
    dbus_message_set_serial(call.get(), 1);
    dbus_message_set_sender(call.get(), ":1.1");
    return CMessageBuilder::Make(bytes, std::move(call), kSteps, true);
}

#endif  // TALLYRA_TESTS_FUZZ_SERVICECALL_H
