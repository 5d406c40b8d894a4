// The reader thread's loop and the assembly of messages; started once by start-up.
#include "mcu_link/uart_reader.h"

#include "mcu_link/line.h"

void MessageAssembler::Dispatch() {
    McuMessagePtr message;
    if (ParseMcuMessage(decoder_.payload(), &message) != 0) return;
    (void)sink_->OnEvent(message.release());
}

void MessageAssembler::Feed(std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        int consumed = 0;
        const DecoderStatus status = decoder_.PutBytes(bytes, &consumed);
        bytes = bytes.subspan(static_cast<size_t>(consumed));
        if (status == DECODER_NORMAL || status == DECODER_ESCAPE) continue;
        if (status == DECODER_FINISH) Dispatch();
        decoder_.Reset(buffer_);
    }
}

void* ListsenThread(void* argument) {
    const auto* args = static_cast<const ListenArgs*>(argument);
    MessageAssembler assembler(args->sink);
    std::array<uint8_t, kUartBufferSize> read_buffer{};
    g_line.AttachReader();
    while (true) {
        // Asked again after a hold: the next one may have begun before this thread was seen to
        // leave.
        while (g_line.hold_requested()) {
            g_line.ParkReader();
            // What was read before belongs to a line that has been reset or reopened since.
            assembler.Restart();
        }
        const ssize_t count = args->port->Read(read_buffer.data(), 1);
        if (count <= 0) continue;
        assembler.Feed(std::span(read_buffer).first(static_cast<size_t>(count)));
    }
}
