#include "tools/vexofileop/terminal/time_left.h"

#include <algorithm>

namespace tool {
namespace {

constexpr double kMemory = 60; // seconds after which what was seen weighs half
// Where nothing tells the two apart, all files being of one size, say, an entry is held to take as long as so many
// bytes do; and how little that weighs beside what is seen.
constexpr double kBytesOfAFile = 65536, kTie = 1e-4;

double part_of(int64_t done, double total) {
    return total > 0 ? std::min(static_cast<double>(done) / total, 1.0) : 0;
}

} // namespace

TimeLeft::TimeLeft(int64_t totalBytes, int64_t totalFiles)
    : m_totalBytes(static_cast<double>(totalBytes)), m_totalFiles(static_cast<double>(totalFiles)) {}

void TimeLeft::add(double moment, int64_t bytes, int64_t files) {
    const double b = part_of(bytes, m_totalBytes), f = part_of(files, m_totalFiles);
    if (m_started && moment > m_moment) {
        const double t = moment - m_moment, db = std::max(b - m_bytes, 0.0), df = std::max(f - m_files, 0.0);
        const double kept = kMemory / (kMemory + t);
        m_bb = m_bb * kept + db * db;
        m_bf = m_bf * kept + db * df;
        m_ff = m_ff * kept + df * df;
        m_bt = m_bt * kept + db * t;
        m_ft = m_ft * kept + df * t;
    }
    if (!m_started || moment > m_moment) {
        m_started = true;
        m_moment = moment;
        m_bytes = b;
        m_files = f;
    }
}

// The least squares of t - bytes * db - files * df, with a small weight on the usual ratio of the two; neither is
// negative.
TimeLeft::Costs TimeLeft::costs() const {
    const double usual = m_totalBytes > 0 ? kBytesOfAFile * m_totalFiles / m_totalBytes : 1;
    const double tie = kTie * (m_bb + m_ff) / (1 + usual * usual);
    const double bb = m_bb + tie * usual * usual, ff = m_ff + tie, bf = m_bf - tie * usual;
    const double determinant = bb * ff - bf * bf;
    if (m_totalBytes <= 0 || m_totalFiles <= 0 || determinant <= 0) {
        return {m_bb > 0 ? m_bt / m_bb : 0, m_ff > 0 && m_totalBytes <= 0 ? m_ft / m_ff : 0};
    }
    const Costs both{(m_bt * ff - m_ft * bf) / determinant, (m_ft * bb - m_bt * bf) / determinant};
    if (both.bytes < 0) {
        return {0, std::max(m_ft / ff, 0.0)};
    }
    return both.files < 0 ? Costs{std::max(m_bt / bb, 0.0), 0} : both;
}

std::optional<double> TimeLeft::seconds() const {
    if (m_bb + m_ff <= 0) {
        return std::nullopt;
    }
    const Costs all = costs();
    const double bytesLeft = m_totalBytes > 0 ? 1 - m_bytes : 0, filesLeft = m_totalFiles > 0 ? 1 - m_files : 0;
    return all.bytes * bytesLeft + all.files * filesLeft;
}

} // namespace tool
