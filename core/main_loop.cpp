// Takes control requests off the queue and executes them; entered by start-up, never left.
#include "core/main_loop.h"

#include <memory>

#include "core/control_commands.h"
#include "sockets/control_server.h"

void RunMainLoopOnce(SensorHub* hub) {
    const std::unique_ptr<QueuedRequest, FreeDeleter> queued(hub->request_queue.DequeueMessage());
    ProcessMessage(hub, *queued);
    hub->control_server->RequestDone(queued->client);
}

void RunMainLoop(SensorHub* hub) {
    while (true) RunMainLoopOnce(hub);
}
