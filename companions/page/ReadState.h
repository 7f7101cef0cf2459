#pragma once

struct sd_bus_message;

namespace kelto::page {

struct CameraView;

/** Takes over the answer of GetState; what it does not tell stays as it is. Whether it could be read. */
bool ReadState(sd_bus_message* answer, CameraView& view);

}  // namespace kelto::page
