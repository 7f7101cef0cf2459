#pragma once

#include "companions/outbox/Evidence.h"
#include "companions/outbox/Order.h"

#include <curl/curl.h>
#include <sys/types.h>

#include <atomic>
#include <memory>
#include <string>

namespace kelto::halvek::outbox {

/**
 * One try to deliver an item. It takes 5 min at the most, 15 s until there is a connection, and 30 s in which nearly
 * nothing moves. One thread, which may be any.
 */
class Attempt {
public:
    /** The handle keeps its connection for the next attempt. Setting the flag ends the attempt within a second. */
    Attempt(CURL* easy, const Order& wanted, const std::atomic<bool>& isCancelled);
    Attempt(const Attempt&) = delete;
    Attempt& operator=(const Attempt&) = delete;

    Evidence Perform();

private:
    using List = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

    void SetCommon();
    void SetServer();
    void SetFtp();
    void SetSftp();
    void SetMail();
    void Resolve();
    void Add(List& list, const std::string& line);
    std::string Authority() const;
    std::string TemporaryName() const;
    void HideSecret();

    void TakeCommand(std::string_view line);
    /** Whether to go on. */
    bool TakeReply(std::string_view line);

    static size_t Read(char* buffer, size_t size, size_t count, void* self);
    static int Seek(void* self, curl_off_t offset, int origin);
    static size_t TakeHeader(char* line, size_t size, size_t count, void* self);
    static int TakeDebug(CURL*, curl_infotype type, char* text, size_t length, void* self);
    static int Progress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t);

    CURL* const handle;
    const Order& order;
    const std::atomic<bool>& cancelled;
    Evidence evidence;
    uint64_t position = 0;
    bool isLeaving = false;
    List before{nullptr, curl_slist_free_all};
    List after{nullptr, curl_slist_free_all};
    List addresses{nullptr, curl_slist_free_all};
    List recipients{nullptr, curl_slist_free_all};
    char error[CURL_ERROR_SIZE] = {};
};

}  // namespace kelto::halvek::outbox
