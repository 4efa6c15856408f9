// The process-wide cache of control-area file names under parallel lookups and rescans, while
// processes and their /tmp/nox_jvm_* files come and go. The `tsan` preset runs it under
// ThreadSanitizer.
#include "controlAreaFile.h"
#include "testSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using J2SE::ControlAreaCopy;
using J2SE::ControlAreaFile;
using J2SE::ControlAreaFileNames;
using noxtest::LiveChild;
using noxtest::ScopedPath;

namespace {

// A live process with a control-area file of `size` bytes.
struct PublishedVm {
    explicit PublishedVm(size_t size) : file(noxtest::control_area_path(child.pid())) {
        ok = noxtest::write_file(file.path(), size);
    }
    LiveChild child;
    ScopedPath file;
    bool ok = false;
};

}  // namespace

// Four threads copy and look up the blocks of two VMs that live through the whole test and of
// VMs that another thread starts and ends 1000 times (each end removes the file first, so every
// pid that is gone also makes the readers rescan /tmp). The stable VMs are found every time;
// the short-lived ones are found or not, but never as another pid's file.
TEST(ControlAreaCacheRaces, LookupsAndRescansWhileVmsComeAndGo) {
    PublishedVm stable_a(4096);
    PublishedVm stable_b(200);
    ASSERT_TRUE(stable_a.ok && stable_b.ok);

    std::mutex current_lock;
    std::vector<int> current;  // pids of the short-lived VMs now published
    std::atomic<bool> stop{false};
    std::atomic<int> stable_misses{0};
    std::atomic<int> wrong_names{0};
    std::atomic<int> reads{0};

    std::vector<std::thread> readers;
    for (int r = 0; r < 4; r++) {
        readers.emplace_back([&, r] {
            int turn = r;
            while (!stop) {
                turn++;
                int pid = turn % 3 == 0 ? stable_a.child.pid() : turn % 3 == 1 ? stable_b.child.pid() : 0;
                if (pid == 0) {
                    std::lock_guard<std::mutex> guard(current_lock);
                    if (!current.empty()) pid = current[static_cast<size_t>(turn) % current.size()];
                }
                if (pid == 0) continue;
                ControlAreaCopy copy = ControlAreaFile::copy_control_area(pid, 64);
                char header[16];
                size_t available = 0;
                bool header_read = ControlAreaFile::read_control_area_header(pid, header, sizeof header, &available);
                J2SE::cstring name = ControlAreaFileNames::lookup(pid);
                bool stable = pid == stable_a.child.pid() || pid == stable_b.child.pid();
                if (stable && (!copy.is_open() || !header_read)) stable_misses++;
                if (!name.is_empty() && name.c_str() != noxtest::control_area_path(pid)) wrong_names++;
                reads++;
            }
        });
    }

    std::vector<std::unique_ptr<PublishedVm>> alive;
    for (int cycle = 0; cycle < noxtest::race_rounds(1000); cycle++) {
        alive.push_back(std::make_unique<PublishedVm>(128 + cycle % 512));
        ASSERT_TRUE(alive.back()->ok);
        {
            std::lock_guard<std::mutex> guard(current_lock);
            current.push_back(alive.back()->child.pid());
        }
        if (alive.size() > 3) {
            std::unique_ptr<PublishedVm> leaving = std::move(alive.front());
            alive.erase(alive.begin());
            {
                std::lock_guard<std::mutex> guard(current_lock);
                current.erase(current.begin());
            }
            // The file goes first, then the process, as a VM that ends does.
            unlink(leaving->file.c_str());
            leaving->child.end();
        }
    }
    stop = true;
    for (auto& t : readers) t.join();

    EXPECT_EQ(stable_misses.load(), 0) << "a VM whose file stayed in place was not found";
    EXPECT_EQ(wrong_names.load(), 0) << "the cache named another pid's file";
    EXPECT_GT(reads.load(), 0);
    EXPECT_GT(ControlAreaFileNames::scan_count(), 1);
}
