// A hub with a simulated MCU on a line of 115,200 bit/s, one for all tests of a suite. Used by the
// tests of shdtool.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/integration/hub.h"
#include "tests/integration/tool.h"

class ToolHub : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        hub_ = std::make_unique<Hub>();
        hub_->StartUp({"--baud", "115200"});
    }
    static void TearDownTestSuite() { hub_.reset(); }

    // The hub is all tests' own: a sensor that one leaves on, or with a period that fills the line,
    // starves the sensors of the next.
    void TearDown() override {
        auto client = hub_->Client();
        for (const shdclient::SensorInfo& sensor : shdclient::AllSensors()) {
            Must(client.Batch(sensor.handle, 200, 0));
            Must(client.Deactivate(sensor.handle));
        }
    }

    // ROOT stands for the hub's tree.
    static ToolRun Run(std::string arguments) {
        const size_t at = arguments.find("ROOT/");
        if (at != std::string::npos) arguments.replace(at, 4, hub_->root());
        return RunTool(hub_->root(), arguments);
    }

    // A file of this process alone.
    static std::string OwnPath(const std::string& name) {
        return testing::TempDir() + name + std::to_string(getpid());
    }

    static inline std::unique_ptr<Hub> hub_;
};
