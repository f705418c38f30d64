// SPDX-License-Identifier: MIT
// Worker threads hand their results to the main loop.
#include <vxutils/messagequeue.h>

#include <cstdint>
#include <cstdio>
#include <thread>
#include <vector>

namespace {

constexpr int workers = 3;
constexpr int resultsEach = 5;

enum Message : int { messageResult, messageDone };

class Results : public IMQEventsink {
public:
    explicit Results(IFDEventsource &source) : source_(source) {}
    void onMessage(CMessageQueue *, const CQMsg &message) override {
        if (message.code == messageResult) {
            ++count_;
            sum_ += *static_cast<const int *>(message.data);
            return;
        }
        if (++done_ == workers) source_.terminate();
    }
    void onQueueError(CMessageQueue *) override { source_.terminate(); }
    void print() const { std::printf("%d workers, %d results, sum %d\n", done_, count_, sum_); }

private:
    IFDEventsource &source_;
    int done_ = 0;
    int count_ = 0;
    int sum_ = 0;
};

}  // namespace

int main() {
    CEPollEventsource loop;
    Results results(loop);
    CMessageQueue queue(&results, &loop);
    if (loop.init() != 0 || queue.init() != 0) return 1;

    std::vector<int> values(size_t{workers} * resultsEach);
    std::vector<std::thread> threads;
    threads.reserve(workers);
    for (int worker = 0; worker < workers; ++worker) {
        threads.emplace_back([&queue, &values, worker] {
            for (int i = worker * resultsEach; i < (worker + 1) * resultsEach; ++i) {
                int &value = values[static_cast<size_t>(i)];
                value = i + 1;
                queue.send(CQMsg(messageResult, &value));
            }
            queue.send(CQMsg(messageDone));
        });
    }
    const int status = loop.evtLoop();
    for (std::thread &thread : threads) thread.join();
    results.print();
    return status;
}
