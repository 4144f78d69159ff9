#include "tests/system/harness/Recorder.h"

#include <sys/stat.h>

#include "tests/system/harness/Pcm.h"
#include "tests/system/harness/Session.h"

namespace harness {

namespace {

long long FileSize(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return -1;
    return static_cast<long long>(st.st_size);
}

}  // namespace

CRecorder::~CRecorder() { Stop(); }

bool CRecorder::Start(const std::string& file) {
    m_file = file;
    m_problem.clear();
    std::string errors = file + ".parec.log";
    if (!m_parec.Start({"parec", "-d", "capture.monitor", "--format=s16le", "--rate=44100",
                        "--channels=2", "--latency-msec=20"},
                       "", file, errors)) {
        m_problem = "parec could not be started";
        return false;
    }
    bool connected = WaitUntil(
        [this] { return FileSize(m_file) > 0 || !m_parec.Running(); }, 5000, 10);
    if (!connected || !m_parec.Running()) {
        std::string text;
        ReadFile(errors, &text);
        m_problem = "parec did not start recording: " + text;
        m_parec.Kill();
        return false;
    }
    return true;
}

bool CRecorder::Stop() { return m_parec.Terminate(3000); }

size_t CRecorder::FramesSoFar() const {
    long long size = FileSize(m_file);
    return size > 0 ? static_cast<size_t>(size) / 4 : 0;
}

std::vector<int16_t> CRecorder::Samples() const { return ReadRawS16(m_file); }

}  // namespace harness
