// What comes from outside (file paths, frame and configured sizes) never
// throws across the interface: folders, unreadable, empty and oversized files
// and absurd sizes get the failure code or the documented pass-through.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "hardening_util.h"
#include "record/kiv_recorder.h"
#include "test_support.h"

namespace fs = std::filesystem;

namespace {

struct BadPath {
    const char* what;
    std::string path;
};

// Files the library cannot use, made in `dir`.
std::vector<BadPath> BadPaths(const std::string& dir) {
    kivtest::WriteFile(dir + "/empty.cube", "");
    std::error_code ec;
    // Sparse: 300 MiB claimed, nothing written.
    { std::ofstream(dir + "/huge.cube").put('\n'); }
    fs::resize_file(dir + "/huge.cube", uintmax_t{300} << 20, ec);
    std::vector<BadPath> paths = {
        {"a folder", dir},
        {"a missing file", dir + "/missing.cube"},
        {"an empty file", dir + "/empty.cube"},
        {"a file over 256 MiB", dir + "/huge.cube"},
        {"a path through a file", dir + "/empty.cube/inner.cube"},
    };
#if !defined(_WIN32)
    paths.push_back({"a file that opens but cannot be read", "/proc/self/mem"});
#endif
    return paths;
}

// The engine's output for one frame, to tell which table it used.
std::vector<uint8_t> Graded(void* source, void* color, const KivVideoFrame& in) {
    kivtest::FrameCatcher catcher(color);
    EXPECT_EQ(KIV_PushVideoFrame(source, &in), KIV_OK);
    KIV_SetVideoFrameCallback(color, nullptr, nullptr);
    return catcher.frames.empty() ? std::vector<uint8_t>() : catcher.frames[0].plane0;
}

TEST(BadInput, FilesTheLibraryCannotUseAreRefusedOrSkipped) {
    kivtest::LibraryScope library;
    const std::string dir = kivtest::TempDir("hardening_files");
    {
        hardening::Chain chain(hardening::WriteSwapCube(dir));
        kivtest::OwnedFrame in(KIV_PIXEL_FORMAT_RGB32, 32, 16, 90);
        const std::vector<uint8_t> swapped = Graded(chain.source, chain.color, in.frame);
        ASSERT_FALSE(swapped.empty());
        kivtest::FrameCatcher composited(chain.tap);
        size_t expectedComposites = 0;

        for (const BadPath& bad : BadPaths(dir)) {
            const auto wide = kivtest::Wide(bad.path);
            EXPECT_EQ(KIV_LoadVideoColorEngineCubeFile(chain.color, wide.c_str()), KIV_ERROR_FAILED) << bad.what;
            EXPECT_EQ(Graded(chain.source, chain.color, in.frame), swapped) << bad.what << ": the table was kept";
            ++expectedComposites;

            // An overlay picture that cannot be loaded draws nothing; the frame goes on.
            KivVideoOsdItem picture{};
            picture.visible = 1;
            picture.opacity = 1.0f;
            const size_t n = std::min(wide.size(), size_t{259});
            std::memcpy(picture.imagePath, wide.data(), n * sizeof(KivWChar));
            EXPECT_GE(KIV_SetVideoOsdImage(chain.osd, &picture), 0) << bad.what;
            EXPECT_EQ(KIV_PushVideoFrame(chain.source, &in.frame), KIV_OK) << bad.what;
            ++expectedComposites;
            EXPECT_EQ(composited.Count(), expectedComposites) << bad.what;
        }
        KIV_SetVideoFrameCallback(chain.tap, nullptr, nullptr);
    }
    fs::remove_all(dir);
}

TEST(BadInput, RecorderPathsThatCannotBeWrittenRecordNothing) {
    kivtest::LibraryScope library;
    const std::string dir = kivtest::TempDir("hardening_recpaths");
    kivtest::WriteFile(dir + "/file", "x");
    const BadPath paths[] = {{"a folder", dir}, {"a path through a file", dir + "/file/out.mp4"},
                             {"a missing folder", dir + "/no/such/out.mp4"}};
    for (const BadPath& bad : paths) {
        void* source = KIV_CreateVideoFrameSource();
        void* recorder = KIV_CreateRecorder(bad.path.c_str());
        ASSERT_EQ(KIV_Connect(source, recorder), KIV_OK);
        ASSERT_EQ(KIV_Start(recorder), KIV_OK) << bad.what;
        const std::vector<uint8_t> idr = hardening::IdrAccessUnit(0, true);
        KivVideoFrame h264 = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 16, 16, idr.data(), static_cast<int32_t>(idr.size()));
        for (int i = 0; i < 3; ++i) {
            h264.timestamp = 1 + i * 333333;
            ASSERT_EQ(KIV_PushVideoFrame(source, &h264), KIV_OK);
            hardening::WaitForInput(recorder, i + 1);
        }
        const KivRecorderStats stats = hardening::WaitForInput(recorder, 3);
        EXPECT_EQ(stats.inputFrames, 3) << bad.what;
        EXPECT_EQ(stats.encodedFrames, 0) << bad.what;
        EXPECT_EQ(KIV_Stop(recorder), KIV_OK) << bad.what;
        KIV_Disconnect(source, recorder);
        EXPECT_EQ(KIV_DestroyPort(recorder), KIV_OK);
        EXPECT_EQ(KIV_DestroyPort(source), KIV_OK);
    }
    size_t entries = 0;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) entries += entry.is_regular_file() ? 1 : 0;
    EXPECT_EQ(entries, 1u) << "only the test's own file";
    fs::remove_all(dir);
}

// Sizes no real picture has, over a small buffer: had any port believed
// them it would have allocated gigabytes or read far past the buffer.
TEST(BadInput, AbsurdSizesPassProcessingAndAreNotRecorded) {
    kivtest::LibraryScope library;
    const std::string dir = kivtest::TempDir("hardening_sizes");
    {
        hardening::Chain chain(hardening::WriteSwapCube(dir));
        // A configured size of 100000 x 100000 would need a 15 GB picture.
        auto writes = std::make_shared<std::atomic<int>>(0);
        auto* recorder = new KivRecorder((dir + "/out.mp4").c_str(), std::make_unique<hardening::CountingEncoder>(writes));
        KivRecorderConfig config{};
        config.width = config.height = 100000;
        ASSERT_EQ(KIV_SetRecorderConfig(recorder, &config), KIV_OK);
        ASSERT_EQ(KIV_Connect(chain.source, recorder), KIV_OK);
        ASSERT_EQ(KIV_Start(recorder), KIV_OK);
        hardening::PlaneWatch composited;
        ASSERT_EQ(KIV_SetVideoFrameCallback(chain.tap, hardening::PlaneWatch::OnFrame, &composited), KIV_OK);
        std::vector<uint8_t> small(4096, 7);
        const struct {
            const char* what;
            int32_t format, width, height, stride0;
        } kSizes[] = {
            {"RGB32 134M rows", KIV_PIXEL_FORMAT_RGB32, 16, 1 << 27, 64},
            {"RGB32 row over 2 GiB", KIV_PIXEL_FORMAT_RGB32, 1 << 29, 2, INT_MAX},
            {"NV12 65536 x 32768", KIV_PIXEL_FORMAT_NV12, 65536, 32768, 65536},
            {"YUY2 INT_MAX x INT_MAX", KIV_PIXEL_FORMAT_YUY2, INT_MAX, INT_MAX, INT_MAX},
            {"H.264 payload of 2 GiB", KIV_PIXEL_FORMAT_H264, 1920, 1080, INT_MAX},
        };
        for (const auto& s : kSizes) {
            KivVideoFrame f = kivtest::FrameOver(s.format, s.width, s.height, small.data(), s.stride0);
            const int before = composited.count.load();
            EXPECT_EQ(KIV_PushVideoFrame(chain.source, &f), KIV_OK) << s.what;
            if (s.format == KIV_PIXEL_FORMAT_H264) continue;  // the overlay sends nothing for compressed frames
            ASSERT_EQ(composited.count.load(), before + 1) << s.what;
            EXPECT_EQ(composited.plane0.load(), small.data()) << s.what << " passed untouched";
        }
        // The recorder refused every copy; an ordinary frame reaches its
        // worker, which cannot make the configured picture and writes nothing.
        kivtest::OwnedFrame ordinary(KIV_PIXEL_FORMAT_RGB32, 32, 16, 90);
        ASSERT_EQ(KIV_PushVideoFrame(chain.source, &ordinary.frame), KIV_OK);
        EXPECT_EQ(hardening::WaitForInput(recorder, 1).inputFrames, 1);
        EXPECT_EQ(KIV_Stop(recorder), KIV_OK);
        EXPECT_EQ(writes->load(), 0);
        KIV_Disconnect(chain.source, recorder);
        EXPECT_EQ(KIV_DestroyPort(recorder), KIV_OK);
    }
    fs::remove_all(dir);
}

}  // namespace
