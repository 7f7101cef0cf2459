#pragma once

#include "companions/outbox/Evidence.h"
#include "companions/outbox/Order.h"

#include <curl/curl.h>
#include <sys/types.h>

#include <memory>
#include <string>

namespace kelto::halvek::outbox {

/**
 * One try to deliver an item. It takes 5 min at the most, 15 s until there is a connection, and 30 s in which nearly
 * nothing moves. One thread, which may be any.
 */
class Attempt {
public:
    /** @param easy what makes it, and is run by others @param keepsIt whether its connection is kept for the next */
    Attempt(std::shared_ptr<CURL> easy, Order wanted, bool keepsIt);
    Attempt(const Attempt&) = delete;
    Attempt& operator=(const Attempt&) = delete;
    /** The handle forgets it. */
    ~Attempt();

    /** Tells the handle what to do. Waits for the resolver. False if there is nothing to run: see Conclude. */
    bool Prepare();
    CURL* Handle() const { return handle.get(); }
    uint64_t Id() const { return order.id; }
    /** What has come of it. @param result the handle's, if it was run */
    Evidence Conclude(CURLcode result);

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

    const std::shared_ptr<CURL> handle;
    const bool keepsConnection;
    const Order order;
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
