// Takes control requests off the queue and executes them; entered by start-up, never left.
#include "core/main_loop.h"

#include <memory>

#include "core/control_commands.h"
#include "sockets/control_server.h"

void RunMainLoopOnce(SensorHub* hub, ControlServer* control_server) {
    const std::unique_ptr<QueuedRequest, FreeDeleter> queued(hub->request_queue.DequeueMessage());
    (void)ProcessMessage(hub, *queued);
    control_server->RequestDone(queued->client);
}

void RunMainLoop(SensorHub* hub, ControlServer* control_server) {
    while (true) RunMainLoopOnce(hub, control_server);
}
