#pragma once

#include <optional>
#include <string>

#include "IFDControl.h"

/** The records of the control interface as JSON, each in one line without an end. */
namespace tools {

std::string json(const control::SceneControl& scene);
std::string json(const control::TrackControl& track);
std::string json(control::TrackingMode mode);
std::string json(int32_t peopleCount);
/** Nulls where there is no camera whose picture could be told. */
std::string json(const std::optional<control::CameraStatus>& status);
/** REQUIRES: it is of a kind other than NONE. */
std::string json(const control::Event& event);

}  // namespace tools
