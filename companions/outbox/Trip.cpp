#include "companions/outbox/Trip.h"

#include <algorithm>
#include <new>
#include <utility>

namespace kelto::halvek::outbox {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds quietTime{20};

std::shared_ptr<CURL> NewHandle() {
    std::shared_ptr<CURL> handle(curl_easy_init(), &curl_easy_cleanup);
    if (!handle) {
        throw std::bad_alloc();
    }
    return handle;
}

}  // namespace

Trip::Trip(Mailbox& box)
    : mailbox(box), multi(curl_multi_init(), &curl_multi_cleanup), own(NewHandle()), lastMove(Clock::now()) {
    if (!multi) {
        throw std::bad_alloc();
    }
}

Trip::~Trip() = default;

void Trip::Begin(Order order) {
    Start(std::make_unique<Attempt>(own, std::move(order), true));
}

void Trip::TakeAlong(Order order) {
    Start(std::make_unique<Attempt>(NewHandle(), std::move(order), false));
}

void Trip::Start(std::unique_ptr<Attempt> attempt) {
    if (!attempt->Prepare() || curl_multi_add_handle(multi.get(), attempt->Handle()) != CURLM_OK) {
        mailbox.Put({attempt->Id(), attempt->Conclude(CURLE_FAILED_INIT)});
        return;
    }
    underWay.push_back(std::move(attempt));
    lastMove = Clock::now();
}

void Trip::GoOn(int wake, std::chrono::milliseconds time) {
    int running = 0;
    curl_multi_perform(multi.get(), &running);
    if (ReportDone()) {
        return;
    }
    curl_waitfd other{wake, CURL_WAIT_POLLIN, 0};
    int ready = 0;
    curl_multi_poll(multi.get(), &other, 1, static_cast<int>(time.count()), &ready);
    if (ready > (other.revents != 0 ? 1 : 0)) {
        lastMove = Clock::now();
    }
}

bool Trip::ReportDone() {
    bool isAnyDone = false;
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi.get(), &left)) {
        CURL* const handle = message->easy_handle;
        const CURLcode result = message->data.result;
        curl_multi_remove_handle(multi.get(), handle);
        const auto attempt =
            std::find_if(underWay.begin(), underWay.end(), [&](const auto& one) { return one->Handle() == handle; });
        Report report{(*attempt)->Id(), (*attempt)->Conclude(result)};
        underWay.erase(attempt);
        mailbox.Put(std::move(report));
        isAnyDone = true;
    }
    return isAnyDone;
}

bool Trip::IsQuiet() const {
    return Clock::now() - lastMove >= quietTime;
}

}  // namespace kelto::halvek::outbox
