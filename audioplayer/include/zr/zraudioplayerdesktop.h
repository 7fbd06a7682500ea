#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <set>
#include <string>

#include <boost/shared_ptr.hpp>

#include <zr/zrbroker.h>
#include <zr/zrmodule.h>
#include <zr/zrmutex.h>

namespace ZR {

/// The sound-file player of the desktop, published as "ZRAudioPlayer".
///
/// A `.wav` or `.ogg` file is played by starting the external player "sndfile-play" as a child
/// process and waiting for it: every play call blocks its host thread until the player exits.
/// Volume, balance, start position and looping are accepted but not passed to the player; a
/// loop starts the player again after each pass. A playback is stopped by its task identifier,
/// which is the host's call id when the call was posted, by sending the player signal 15.
///
/// A loop cannot run away: when the player fails at once (exits with a non-zero code, or
/// cannot be waited for, within failedAtOnceMs of its start; a file it refuses, for instance)
/// the loop waits before the next pass, backOffFirstMs after the first such failure and twice
/// as long after each further one, up to backOffLongestMs; a pass that plays resets the wait.
/// The first failure of a run of them is logged once, as a warning, and the recovery at info;
/// the failures in between only at verbose. A stop of the loop's task identifier during the wait
/// ends the loop at once.
///
/// Several playbacks may run at once on different host threads, each with its own player.
class ZRAudioPlayerDesktop : public ZRModule {
 public:
  /// Publishes the methods and looks "sndfile-play" up on PATH (an empty `playerPath` when it is
  /// not there; init() then fails).
  explicit ZRAudioPlayerDesktop(boost::shared_ptr<ZRBroker> broker);
  /// Releases the fields only: running players are neither killed nor waited for.
  ~ZRAudioPlayerDesktop() override;

  /// Throws ZRError ("ZRAudioPlayer", "init", "Couldn't find audioplayer") when the player
  /// program was not found.
  void init() override;
  /// Stops the playback with this task identifier (signal 15 to its player); the play call then
  /// returns false. Silent for an unknown or finished identifier.
  void stop(const int& id) override;

  // Published methods -------------------------------------------------------------------------
  // Each plays the file to its end (or until stopped) on the calling thread. They throw
  // ZRError for an unsupported extension, a sound file that cannot be opened, or a player that
  // cannot be started.
  void playFile(const std::string& fileName);
  void playFile(const std::string& fileName, const float& volume, const float& pan);
  /// Plays the file again and again until the running pass is stopped (or the loop is stopped
  /// while it waits after a failed pass).
  void playFileInLoop(const std::string& fileName);
  void playFileInLoop(const std::string& fileName, const float& volume, const float& pan);
  /// The position is accepted but the file is played from its beginning.
  void playFileFromPosition(const std::string& fileName, const float& position);
  void playFileFromPosition(const std::string& fileName, const float& position, const float& volume,
                            const float& pan);
  /// Only logs the warning "pause is not yet supported".
  void pause(const int& id);

  // Internal operations (not published) -------------------------------------------------------
  /// Loops like playFileInLoop, with volume and pan taken by value.
  void _playFileInLoop(const std::string& fileName, float volume, float pan);
  /// Plays the file once through the external player and waits for it. Returns true when the
  /// playback ended by itself (whatever the player's exit code, which is logged as a warning
  /// when not 0), false when it was stopped. `position`, `volume`, `pan` and `loop` are unused.
  /// Throws ZRError for an unsupported extension (before any process starts), an unreadable
  /// sound file (the probe's error, unchanged) or a failed start.
  bool _playFileFromPosition(const std::string& fileName, float position, float volume, float pan,
                             bool loop);
  /// Logs the warning "LoadFile is not implemented yet..." and returns -1.
  int loadFile(const std::string& fileName);
  /// Logs the warning "play is not yet supported".
  void _play(int id, float volume, float pan, bool loop);
  /// The next task identifier: 1 to 2147483646, then 1 again. Takes launchMutex, so that
  /// playbacks started at once on several threads never share an identifier.
  int xGenerateUniqueTaskID();

  /// Full path of "sndfile-play" on PATH, or an empty string.
  static std::string findAudioPlayer();

  /// True when the extension of `fileName` is ".wav" in any letter case and the file opens for
  /// reading; false, without touching the file, for any other extension. Throws ZRError
  /// ("ZRAudioPlayerTask", "xIsAWavFile()", "Cannot open the wav file \"<fileName>\"") when the
  /// extension matches but the file cannot be opened.
  static bool isAWavFile(const std::string& fileName);
  /// The same for ".ogg" (method "xIsAOggFile()", "Cannot open the ogg file \"<fileName>\"").
  static bool isAOggFile(const std::string& fileName);

 protected:
  /// Playbacks whose player is running: task identifier to process identifier. Entered under
  /// launchMutex (and stopMutex, so that no reader sees the map change); looked up and erased
  /// under stopMutex.
  std::map<int, int> taskToPid;
  boost::shared_ptr<ZRMutex> launchMutex;
  boost::shared_ptr<ZRMutex> stopMutex;
  /// The last task identifier handed out (guarded by launchMutex).
  int lastTaskId;
  /// The player program started for each playback; empty when it was not found.
  std::string playerPath;

  /// A pass that ends with a failure within this time of its start failed "at once".
  static constexpr std::chrono::milliseconds failedAtOnceMs{200};
  /// The wait of a loop after its first pass that failed at once, and the longest wait.
  static constexpr std::chrono::milliseconds backOffFirstMs{100};
  static constexpr std::chrono::milliseconds backOffLongestMs{5000};

 private:
  enum class PassEnd {
    Stopped,       ///< a stop removed the task
    Played,        ///< the player ended by itself, with success or after playing a while
    FailedAtOnce,  ///< the player failed within failedAtOnceMs of its start
  };
  struct Pass {
    PassEnd end = PassEnd::Played;
    int taskId = 0;
    int status = 0;  ///< the player's exit code
  };
  /// One playback, as _playFileFromPosition describes it. A pass of a loop (`inLoop`) that fails
  /// at once logs its failure at verbose only (the loop reports it) and leaves its task
  /// identifier in loopsWaiting, in the same step that takes it out of taskToPid. A loop back
  /// from a wait passes the identifier it waited as (`waitingAs`, else 0), which leaves
  /// loopsWaiting only when the new player is entered in taskToPid; if a stop took it out first,
  /// the new player is killed at once and the pass ends Stopped. So a stop finds the loop at
  /// every moment.
  Pass xPlayPass(const std::string& fileName, bool inLoop, int waitingAs);
  /// The loop of playFileInLoop and _playFileInLoop, with its back-off after failed passes.
  void xLoop(const std::string& fileName);
  /// Waits `delay` for the loop waiting as `taskId`; false when a stop ended the wait. The loop
  /// stays in loopsWaiting after a wait that ran out, until its next pass enters its player.
  bool xWaitBeforeNextPass(int taskId, std::chrono::milliseconds delay);

  /// Loops waiting before their next pass, by task identifier; guarded by stopMutex, which
  /// stop holds when it takes one out and signals loopWaitEnded.
  std::set<int> loopsWaiting;
  std::condition_variable_any loopWaitEnded;
};

}  // namespace ZR
