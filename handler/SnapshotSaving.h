#pragma once

#include <string>

namespace kelto::halvek::handler {

/**
 * Whether a snapshot may be written to a folder: not to the SD card while the camera records video there, for which it
 * asks the recording service, 5 s at most. A service that does not answer forbids nothing. Only the card's own folder
 * is asked for, none below it. Logs an Error when it forbids.
 *
 * @param destination the folder's resolved path
 * @throws VassaApiException if a session with the media library cannot be begun or ended
 */
bool IsSnapshotSavingAllowed(const std::string& destination);

}  // namespace kelto::halvek::handler
