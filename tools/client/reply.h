// The meaning of a ControlReply for the request that it answers. Used by HubClient; pure functions,
// safe on any thread.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "protocol/control.h"
#include "tools/client/result.h"

namespace shdclient {

// MCU-wide commands concern no sensor, but their request must name a real one.
inline constexpr int32_t kMcuWideHandle = 0;

enum class ReplyForm : uint8_t {
    kResult,   // result counts; data may hold bytes
    kText,     // text counts; empty when the MCU gave none
    kVirtual,  // answered for a virtual sensor, whatever the command; nothing went to the MCU
    kError,    // the hub refused: sensor or command unknown, or the MCU is being restarted
};

struct Reply {
    ReplyForm form = ReplyForm::kError;
    int32_t result = -1;              // 0 success, 1..255 the MCU's status, -1 no usable answer
    std::string text;                 // at most 255 characters
    std::array<uint8_t, 252> data{};  // of kResult
};

// The name of a command in words, for instance "set delay"; "command 15" for an unknown id.
[[nodiscard]] std::string CommandName(int32_t command);

// The request in words, for instance "batch of accelerometer"; the command alone when it concerns
// the MCU or the daemon as a whole.
[[nodiscard]] std::string RequestName(const shd::ClientRequest& request);

// False for the two commands that the daemon never answers.
[[nodiscard]] bool HasReply(int32_t command);

// A request with args all 0.
[[nodiscard]] shd::ClientRequest MakeRequest(int32_t handle, shd::ControlCommand command);

// Reads record as the answer to request: the record repeats handle and command of the request,
// except that MCU-wide commands answer with handle 0, the version request with command 7, the
// virtual sensors with command 0 and refusals with command -1. kProtocol when it does not fit.
[[nodiscard]] Result<Reply> InterpretReply(const shd::ClientRequest& request,
                                           const shd::ControlReply& record);

// Success when the request was carried out, otherwise kRefused with the reason in words.
[[nodiscard]] Status Outcome(const shd::ClientRequest& request, const Reply& reply);

}  // namespace shdclient
