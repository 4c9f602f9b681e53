// The bus thread: one libubus connection, driven by poll() on its socket and
// an eventfd that other threads ring when they queue work.  libubox's uloop
// never runs here: uloop_run would install handlers for SIGCHLD (reaping the
// children the process seam waits for) and SIGTERM; libubus only borrows
// uloop's descriptor set for the length of a call.
#include "bus/bus.h"

#include "base/log.h"
#include "base/progress.h"

// libubox's headers declare C functions without saying so to C++.
extern "C" {
#include <libubox/blobmsg_json.h>
}
#include <libubus.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

namespace cbsd::bus {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kReconnectPause = std::chrono::seconds(1);
// A caller waits this much beyond its limit for the bus thread's own
// time-out to arrive, before it gives up on its own.
constexpr auto kAnswerGrace = std::chrono::milliseconds(200);
// Calls queued at once (each caller has one at most); more fail at once.
constexpr size_t kMaxQueued = 16;

struct Job {
    bool is_event = false;
    std::string object;  // or the event's type
    std::string method;
    std::string json;
    Clock::time_point deadline;
    bool done = false;
    CallResult result;
};

struct Served {
    std::string name;
    std::vector<Method> methods;
    std::vector<ubus_method> table;
    ubus_object_type type{};
    ubus_object object{};
};

struct Periodic {
    std::chrono::milliseconds interval;
    std::function<void()> task;
    Clock::time_point due;
};

struct Bus {
    std::mutex mutex;
    std::condition_variable answered;
    std::deque<std::shared_ptr<Job>> queue;
    int wake_fd = -1;
    std::thread thread;
    std::thread::id thread_id;
    std::atomic<bool> running{false};
    std::atomic<bool> stopping{false};
    std::atomic<bool> connected{false};
    std::string socket_path;
    bool default_path = true;
    // Bus thread only, once started:
    ubus_context* ctx = nullptr;
    bool lost = false;
    Clock::time_point next_connect{};
    std::vector<std::unique_ptr<Served>> served;
    std::vector<Periodic> periodic;
};

// Never destroyed: the daemon ends with _Exit while the thread may still run.
Bus& the_bus() {
    static Bus* bus = new Bus;
    return *bus;
}

void on_connection_lost(ubus_context*) { the_bus().lost = true; }

Served* served_for(const ubus_object* object) {
    for (auto& served : the_bus().served)
        if (&served->object == object) return served.get();
    return nullptr;
}

int answer_method(ubus_context* ctx, ubus_object* object, ubus_request_data* request,
                  const char* method, blob_attr*) {
    Served* served = served_for(object);
    if (!served) return UBUS_STATUS_NOT_FOUND;
    for (const Method& candidate : served->methods) {
        if (candidate.name != method) continue;
        std::string json = candidate.reply_json();
        blob_buf reply{};
        blob_buf_init(&reply, 0);
        bool built = blobmsg_add_json_from_string(&reply, json.c_str());
        if (built) ubus_send_reply(ctx, request, reply.head);
        blob_buf_free(&reply);
        return built ? UBUS_STATUS_OK : UBUS_STATUS_UNKNOWN_ERROR;
    }
    return UBUS_STATUS_METHOD_NOT_FOUND;
}

// ubusd knows nothing of a new connection's objects: each is added again,
// with the ids ubusd handed out before forgotten.
void add_objects(Bus& bus) {
    for (auto& served : bus.served) {
        served->object.id = 0;
        served->type.id = 0;
        int status = ubus_add_object(bus.ctx, &served->object);
        if (status != UBUS_STATUS_OK)
            base::error("[SAS] ubus object %s not added: %s\n", served->name.c_str(),
                        ubus_strerror(status));
    }
}

void try_connect(Bus& bus) {
    bus.next_connect = Clock::now() + kReconnectPause;
    bus.ctx = ubus_connect(bus.default_path ? nullptr : bus.socket_path.c_str());
    if (!bus.ctx) return;
    bus.ctx->connection_lost = on_connection_lost;
    bus.lost = false;
    add_objects(bus);
    bus.connected = true;
}

void drop_connection(Bus& bus) {
    if (!bus.ctx) return;
    ubus_free(bus.ctx);
    bus.ctx = nullptr;
    bus.connected = false;
    bus.next_connect = Clock::now() + kReconnectPause;
}

void keep_reply(ubus_request* request, int, blob_attr* message) {
    if (!message) return;
    char* text = blobmsg_format_json_indent(message, true, 0);
    if (!text) return;
    auto* reply = static_cast<std::string*>(request->priv);
    reply->append(text);
    reply->push_back('\n');
    std::free(text);
}

int milliseconds_left(const Job& job) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(job.deadline - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// As `ubus call` does it: look the object up, then invoke with the arguments.
CallResult make_call(Bus& bus, const Job& job) {
    CallResult result;
    result.end = CallEnd::kNoConnection;
    if (!bus.ctx) return result;
    uint32_t id = 0;
    int status = ubus_lookup_id(bus.ctx, job.object.c_str(), &id);
    if (status != UBUS_STATUS_OK) {
        result.end = bus.lost ? CallEnd::kNoConnection : CallEnd::kNoObject;
        result.status = status;
        return result;
    }
    blob_buf arguments{};
    blob_buf_init(&arguments, 0);
    if (!job.json.empty() && !blobmsg_add_json_from_string(&arguments, job.json.c_str())) {
        blob_buf_free(&arguments);
        result.end = CallEnd::kFailed;
        result.status = UBUS_STATUS_INVALID_ARGUMENT;
        return result;
    }
    int left = milliseconds_left(job);
    status = left > 0 ? ubus_invoke(bus.ctx, id, job.method.c_str(), arguments.head, keep_reply,
                                    &result.reply, left)
                      : UBUS_STATUS_TIMEOUT;
    blob_buf_free(&arguments);
    result.status = status;
    if (status == UBUS_STATUS_OK) result.end = CallEnd::kAnswered;
    else if (status == UBUS_STATUS_TIMEOUT) result.end = CallEnd::kTimedOut;
    else result.end = bus.lost ? CallEnd::kNoConnection : CallEnd::kFailed;
    return result;
}

void send_queued_event(Bus& bus, const Job& job) {
    if (!bus.ctx) return;
    blob_buf data{};
    blob_buf_init(&data, 0);
    if (blobmsg_add_json_from_string(&data, job.json.c_str()))
        ubus_send_event(bus.ctx, job.object.c_str(), data.head);
    blob_buf_free(&data);
}

void finish(Bus& bus, Job& job, CallResult result) {
    std::lock_guard<std::mutex> lock(bus.mutex);
    job.result = std::move(result);
    job.done = true;
    bus.answered.notify_all();
}

void work_through_queue(Bus& bus) {
    for (;;) {
        std::shared_ptr<Job> job;
        {
            std::lock_guard<std::mutex> lock(bus.mutex);
            if (bus.queue.empty()) return;
            job = bus.queue.front();
            bus.queue.pop_front();
        }
        if (job->is_event) {
            send_queued_event(bus, *job);
            continue;
        }
        finish(bus, *job, make_call(bus, *job));
        if (bus.lost) drop_connection(bus);
    }
}

void run_due_tasks(Bus& bus) {
    for (Periodic& periodic : bus.periodic) {
        if (Clock::now() < periodic.due) continue;
        periodic.due = Clock::now() + periodic.interval;
        periodic.task();
        if (bus.lost) drop_connection(bus);
    }
}

int poll_timeout_ms(const Bus& bus) {
    Clock::time_point next = Clock::time_point::max();
    for (const Periodic& periodic : bus.periodic) next = std::min(next, periodic.due);
    if (!bus.ctx) next = std::min(next, bus.next_connect);
    if (next == Clock::time_point::max()) return -1;
    auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now());
    return wait.count() > 0 ? static_cast<int>(wait.count()) + 1 : 0;
}

void wait_for_work(Bus& bus) {
    pollfd ready[2] = {{bus.wake_fd, POLLIN, 0}, {bus.ctx ? bus.ctx->sock.fd : -1, POLLIN, 0}};
    if (poll(ready, 2, poll_timeout_ms(bus)) <= 0) return;
    if (ready[0].revents) {
        uint64_t rings = 0;
        ssize_t ignored = read(bus.wake_fd, &rings, sizeof rings);
        (void)ignored;
    }
    if (bus.ctx && ready[1].revents) {
        ubus_handle_event(bus.ctx);
        if (bus.lost) drop_connection(bus);
    }
}

// Calls still queued when the thread ends are answered as unreachable.
void fail_queued(Bus& bus) {
    std::lock_guard<std::mutex> lock(bus.mutex);
    for (auto& job : bus.queue) {
        job->result.end = CallEnd::kNoConnection;
        job->done = true;
    }
    bus.queue.clear();
    bus.answered.notify_all();
}

void bus_thread(Bus& bus) {
    for (Periodic& periodic : bus.periodic) periodic.due = Clock::now() + periodic.interval;
    while (!bus.stopping) {
        if (!bus.ctx && Clock::now() >= bus.next_connect) try_connect(bus);
        run_due_tasks(bus);
        work_through_queue(bus);
        if (!bus.stopping) wait_for_work(bus);
    }
    drop_connection(bus);
    fail_queued(bus);
}

void ring(Bus& bus) {
    uint64_t one = 1;
    ssize_t ignored = write(bus.wake_fd, &one, sizeof one);
    (void)ignored;
}

CallResult wait_for_answer(Bus& bus, const std::shared_ptr<Job>& job) {
    std::unique_lock<std::mutex> lock(bus.mutex);
    if (!bus.answered.wait_until(lock, job->deadline + kAnswerGrace, [&] { return job->done; })) {
        // Not even started (the bus thread is held up by ubusd): the call is
        // withdrawn, so that waiters that gave up never crowd the queue.
        auto queued = std::find(bus.queue.begin(), bus.queue.end(), job);
        if (queued != bus.queue.end()) bus.queue.erase(queued);
        CallResult late;
        late.end = CallEnd::kTimedOut;
        return late;
    }
    return job->result;
}

bool queue_job(Bus& bus, std::shared_ptr<Job> job) {
    {
        std::lock_guard<std::mutex> lock(bus.mutex);
        if (bus.queue.size() >= kMaxQueued) return false;
        bus.queue.push_back(std::move(job));
    }
    ring(bus);
    return true;
}

}  // namespace

bool start(const char* socket_path) {
    Bus& bus = the_bus();
    if (bus.running) return true;
    bus.default_path = socket_path == nullptr;
    bus.socket_path = socket_path ? socket_path : "";
    bus.wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (bus.wake_fd < 0) {
        base::error("[SAS] no bus thread: eventfd: %s\n", std::strerror(errno));
        return false;
    }
    bus.stopping = false;
    bus.next_connect = Clock::now();
    bus.thread = std::thread([&bus] {
        bus.thread_id = std::this_thread::get_id();
        bus_thread(bus);
    });
    bus.running = true;
    return true;
}

void stop() {
    Bus& bus = the_bus();
    if (!bus.running) return;
    bus.stopping = true;
    ring(bus);
    bus.thread.join();
    bus.running = false;
    close(bus.wake_fd);
    bus.wake_fd = -1;
}

bool running() { return the_bus().running; }

bool connected() { return the_bus().connected; }

namespace {

CallResult call_on_bus(const char* object, const char* method, const char* json_args,
                       int time_limit_ms) {
    Bus& bus = the_bus();
    if (!bus.running) return CallResult{};
    auto job = std::make_shared<Job>();
    job->object = object;
    job->method = method;
    job->json = json_args ? json_args : "";
    job->deadline = Clock::now() + std::chrono::milliseconds(time_limit_ms);
    if (std::this_thread::get_id() == bus.thread_id) return make_call(bus, *job);
    if (!queue_job(bus, job)) {
        CallResult crowded;
        crowded.end = CallEnd::kTimedOut;
        return crowded;
    }
    return wait_for_answer(bus, job);
}

}  // namespace

CallResult call(const char* object, const char* method, const char* json_args, int time_limit_ms) {
    CallResult result = call_on_bus(object, method, json_args, time_limit_ms);
    base::note_step_done();  // a call that ended, answered or not, is progress
    return result;
}

const char* status_text(int status) { return ubus_strerror(status); }

void serve_object(const std::string& name, std::vector<Method> methods) {
    auto served = std::make_unique<Served>();
    served->name = name;
    served->methods = std::move(methods);
    for (const Method& method : served->methods) {
        ubus_method entry{};
        entry.name = method.name.c_str();
        entry.handler = answer_method;
        served->table.push_back(entry);
    }
    served->type.name = served->name.c_str();
    served->type.methods = served->table.data();
    served->type.n_methods = static_cast<int>(served->table.size());
    served->object.name = served->name.c_str();
    served->object.type = &served->type;
    served->object.methods = served->table.data();
    served->object.n_methods = served->type.n_methods;
    the_bus().served.push_back(std::move(served));
}

void send_event(const std::string& type, std::string json) {
    Bus& bus = the_bus();
    if (!bus.running || !bus.connected) return;
    auto job = std::make_shared<Job>();
    job->is_event = true;
    job->object = type;
    job->json = std::move(json);
    queue_job(bus, std::move(job));
}

void every(int interval_ms, std::function<void()> task) {
    the_bus().periodic.push_back({std::chrono::milliseconds(interval_ms), std::move(task), {}});
}

}  // namespace cbsd::bus
