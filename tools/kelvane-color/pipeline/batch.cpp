// Jobs run on threads: each reads its input, transforms it and writes its output; the reports
// follow in input order.
#include "pipeline/batch.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>

#include "image/chart.h"
#include "pipeline/file_access.h"

namespace kv_tool {

image read_source(const std::string& input, const settings& s) {
    if (!input.empty()) return read_image(input);
    try {
        return make_chart(s.chart_width, s.chart_height);
    } catch (const std::bad_alloc&) {
        throw file_error("chart", "not enough memory for its " + std::to_string(s.chart_width) +
                                      "x" + std::to_string(s.chart_height) + " pixels");
    }
}

namespace {

// Reads, transforms and writes one job; `threads` stripes for its frame.
void run_job(job& j, const settings& s, const output_route& route, const processor& p,
             unsigned threads) {
    try {
        const image picture = read_source(j.input, s);
        j.width = picture.width;
        j.height = picture.height;
        const std::vector<uint16_t> input = to_input_buffer(picture, s.input_layout);
        const size_t out_size = output_bytes(s, picture.pixel_count());
        std::vector<uint16_t> output((output_bytes(route.library, picture.pixel_count()) + 1) / 2);
        const auto pixels = int32_t(picture.pixel_count());
        const auto start = std::chrono::steady_clock::now();
        const kv_status status = run_transform(p, route.library, route.plan, input.data(),
                                               output.data(), pixels, threads);
        j.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        check_transform(status, j.name, route.library, route.plan);
        output = finish_frame(route, std::move(output), picture.pixel_count());
        if (j.target.empty()) return;
        if (j.type == file_type::raw) {
            write_file(j.target, output.data(), out_size);
        } else {
            write_image(j.target, j.type, from_output_buffer(output.data(), s, picture));
        }
    } catch (const std::bad_alloc&) {
        // The image was read (its reader reports its own shortage), so the buffers of the
        // transform or of the output image are what did not fit.
        j.failure = file_error(j.name, "not enough memory for the buffers that process it");
    } catch (const tool_error& e) {
        if (e.code() == EXIT_FILE) {
            j.failure = e;
        } else {
            j.fatal = std::current_exception();
        }
    } catch (...) {
        j.fatal = std::current_exception();
    }
}

// What the workers and the reporting thread share.
class job_board {
  public:
    explicit job_board(std::vector<job>& jobs) : jobs_(jobs) {}

    // The next job to run, after marking the refused ones before it finished; false when there is
    // none left or the run has stopped.
    bool claim(size_t* i) {
        std::lock_guard<std::mutex> lock(mutex_);
        while (next_ < jobs_.size() && jobs_[next_].refusal) jobs_[next_++].finished = true;
        if (stop_ || next_ == jobs_.size()) return false;
        *i = next_++;
        jobs_[*i].claimed = true;
        return true;
    }
    // A job is done; a fatal one stops the run.
    void finish(size_t i) {
        std::lock_guard<std::mutex> lock(mutex_);
        jobs_[i].finished = true;
        stop_ = stop_ || jobs_[i].fatal;
        changed_.notify_all();
    }
    void wake() {
        std::lock_guard<std::mutex> lock(mutex_);
        changed_.notify_all();
    }
    void stop() {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    // Waits until job i is done; false when the run ended before it.
    bool wait_for(size_t i) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] {
            return jobs_[i].finished || jobs_[i].refusal || (stop_ && !jobs_[i].claimed);
        });
        return jobs_[i].finished || jobs_[i].refusal;
    }

  private:
    std::vector<job>& jobs_;
    std::mutex mutex_;
    std::condition_variable changed_;
    size_t next_ = 0;
    bool stop_ = false;
};

}  // namespace

void run_jobs(std::vector<job>& jobs, const settings& s, const output_route& route,
              const processor& p, const std::function<bool(size_t)>& report) {
    const size_t workers = std::min<size_t>(s.threads, jobs.size());
    const unsigned stripes = std::max(1u, s.threads / unsigned(workers));
    job_board board(jobs);
    auto work = [&] {
        size_t i = 0;
        while (board.claim(&i)) {
            run_job(jobs[i], s, route, p, stripes);
            board.finish(i);
        }
        board.wake();
    };
    std::vector<std::thread> threads;
    if (workers > 1) {
        try {
            for (size_t w = 0; w < workers; ++w) threads.emplace_back(work);
        } catch (const std::system_error&) {
            // Fewer threads than asked for: those that started share the work.
        }
    }
    if (threads.empty()) work();
    try {
        for (size_t i = 0; i < jobs.size(); ++i) {
            if (!board.wait_for(i)) break;  // the run ended before this job
            if (!report(i)) {
                board.stop();
                break;
            }
        }
    } catch (...) {
        // The workers are joined before anything leaves this function.
        board.stop();
        for (std::thread& t : threads) t.join();
        throw;
    }
    for (std::thread& t : threads) t.join();
}

}  // namespace kv_tool
