#pragma once
// The exponential sweep a measurement plays: frequency range, length, level, silences and a
// preset name. A plain, archivable value that builds the stimulus buffer at a given sample rate.
//
// The getters of startFreq and endFreq answer the full-range values (1 Hz and 0, which stands for
// the Nyquist frequency) while fullRangeSweep is set, and those of beginSilence and endSilence the
// fixed 500 ms and 2000 ms while defaultSilence is set, whatever is stored. Observers of those keys
// are told when the switch they depend on flips.

#include "math/VELTRealVector.h"
#include "platform/Observing.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar {

class KeyedArchiver;
class KeyedUnarchiver;

class VELTLogSweepSettings : public Observable {
public:
    static constexpr std::string_view className = "VELTLogSweepSettings";

    VELTLogSweepSettings();
    // A copy stores the effective values the original answers (a full-range, default-silence
    // preset copies as start 1.0, end 0.0, 500 and 2000 ms); presets rely on this when they are
    // handed to records. Observers are not copied.
    VELTLogSweepSettings(const VELTLogSweepSettings& other);
    VELTLogSweepSettings& operator=(const VELTLogSweepSettings& other);
    // Moving keeps the stored values exactly.
    VELTLogSweepSettings(VELTLogSweepSettings&& other) noexcept;
    VELTLogSweepSettings& operator=(VELTLogSweepSettings&& other) noexcept;
    ~VELTLogSweepSettings() override = default;

    // The defaults named "Short (1s) Sweep" with a 1000 ms sweep, and "Long (10s) Sweep" with 10000 ms.
    static VELTLogSweepSettings shortLogSweepSettings();
    static VELTLogSweepSettings longLogSweepSettings();

    float startFreq() const noexcept; // Hz; 1.0 while fullRangeSweep
    void setStartFreq(float frequency);
    float endFreq() const noexcept; // Hz; 0.0 (the Nyquist frequency) while fullRangeSweep
    void setEndFreq(float frequency);
    bool fullRangeSweep() const noexcept { return fullRangeSweep_; }
    void setFullRangeSweep(bool fullRange);
    float beginSilence() const noexcept; // ms; 500.0 while defaultSilence
    void setBeginSilence(float milliseconds);
    float endSilence() const noexcept; // ms; 2000.0 while defaultSilence
    void setEndSilence(float milliseconds);
    float amplitude() const noexcept { return amplitude_; } // linear peak, full scale 1.0
    void setAmplitude(float amplitude);
    float duration() const noexcept { return duration_; } // ms, the sweep alone
    void setDuration(float milliseconds);
    // Kept, copied and archived, but the generator applies no fade.
    float leadIn() const noexcept { return leadIn_; }
    void setLeadIn(float milliseconds);
    float leadOut() const noexcept { return leadOut_; }
    void setLeadOut(float milliseconds);
    bool defaultSilence() const noexcept { return defaultSilence_; }
    void setDefaultSilence(bool useDefault);
    const std::string& name() const noexcept { return name_; }
    void setName(std::string name);

    // Key-value coding of nil: the key's stored value becomes 0.0 (false for the switches, an empty
    // name for "name"). An unknown key raises ParameterAssertion.
    void setNilValueForKey(std::string_view key);

    std::vector<std::string_view> keyPathsForValuesAffectingValueForKey(std::string_view key) const override;

    // The stimulus for one measurement at sampleRate Hz: silence, sweep, silence. A full-range sweep
    // runs from 1 Hz to half the sample rate.
    VELTRealVector stimulusSignalWithSampleRate(std::uint64_t sampleRate) const;

    void encodeWithCoder(KeyedArchiver& coder) const;
    static VELTLogSweepSettings initWithCoder(KeyedUnarchiver& coder);

    // Equal when every stored field is equal (observers are not compared).
    bool operator==(const VELTLogSweepSettings& other) const noexcept;

private:
    void assignEffectiveValuesOf(const VELTLogSweepSettings& other);
    void assignStoredValuesOf(const VELTLogSweepSettings& other) noexcept;

    float startFreq_ = 1.0f;
    float endFreq_ = 20000.0f;
    bool fullRangeSweep_ = true;
    float beginSilence_ = 0.0f;
    float endSilence_ = 0.0f;
    float amplitude_ = 1.0f;
    float duration_ = 1000.0f;
    float leadIn_ = 0.0f;
    float leadOut_ = 0.0f;
    bool defaultSilence_ = true;
    std::string name_;
};

} // namespace tavolar
