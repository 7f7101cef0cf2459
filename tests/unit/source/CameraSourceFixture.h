#pragma once

#include "env/HalvekEnv.h"
#include "tests/fakes/FakeProviders.h"
#include "tests/fakes/RecordingHandler.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <memory>

namespace kelto::halvek::source {

/** A source that hears one of the camera's services, with a handler on it; the service is a fake. */
template <typename Source>
class CameraSourceFixture : public ::testing::Test {
protected:
    explicit CameraSourceFixture(const char* typeName) : source(std::make_unique<Source>(typeName, &env)) {
        source->AddHandler(&handler);
    }

    test::LogCapture log;
    test::FakeProviders providers;
    test::RecordingHandler handler;
    HalvekEnv env;
    std::unique_ptr<Source> source;
};

}  // namespace kelto::halvek::source
