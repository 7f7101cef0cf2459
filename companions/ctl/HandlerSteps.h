#pragma once

#include "companions/ctl/Examination.h"
#include "companions/ctl/HandlerView.h"

#include <optional>
#include <string>

namespace kelto::halvek::ctl {

// What CheckHandlers asks of a handler of one type, step by step. Each adds its findings to the examination.

/** Of a Folder and an Ftp: they want the snapshot. */
void CheckAttachment(Examination& examination, const HandlerView& handler);

/** Of all that take the snapshot along, if they do: where the camera keeps it. */
void CheckSnapshot(Examination& examination, const HandlerView& handler);

/** Of a Folder and an Ftp: what the snapshot will be called. */
void CheckDestName(Examination& examination, const HandlerView& handler);

void CheckFolder(Examination& examination, const HandlerView& handler);
void CheckUpload(Examination& examination, const HandlerView& handler);
void CheckMail(Examination& examination, const HandlerView& handler);

/** What the daemon says when it runs into the fault; nothing of a handler that no event reaches. */
inline std::optional<std::string> AtEachEvent(const HandlerView& handler, const std::string& record) {
    return handler.IsWired() ? std::optional(record) : std::nullopt;
}

}  // namespace kelto::halvek::ctl
