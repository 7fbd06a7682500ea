#pragma once

#include <cstddef>
#include <vector>

#include <zr/tts/texttospeechenginecallbackinterface.h>

#include "espeakmarkup.h"

namespace bexko {
namespace engine {
namespace detail {

/// One event as the backend reports it: its code, its value and its sample in the sentence's
/// audio.
struct StreamEvent {
  ZR::TextToSpeechEngineEvent type;
  int value;
  long long sample;
};

/// Where a SentenceStream hands out what is ready, in stream order. Each call returns false to
/// end the sentence (stopped), after which nothing more is handed out.
class StreamSink {
 public:
  virtual ~StreamSink() = default;
  /// `count` mono samples that start at sample `first` of the sentence.
  virtual bool audio(const short* samples, std::size_t count, long long first) = 0;
  /// An event, once every sample before `event.sample` has gone to audio().
  virtual bool event(const StreamEvent& event) = 0;
};

/// Turns what eSpeak NG reports for one sentence (audio blocks, its word, mark, sentence and
/// clause-end events) into the stream the service consumes: one word event per word of the
/// service's split of the tag-free sentence (EspeakMarkup::tokens), in order, with the word's
/// character index, and every event handed out after exactly the audio before its sample.
///
/// A word that eSpeak reports keeps eSpeak's sample. A word that eSpeak folds into a
/// neighbour, or reads as one word with another ("p.m."), is placed inside the audio of the
/// eSpeak word that covers it, in proportion to characters, never before the word before it,
/// never after the word after it, and on the right side of a mark between them. A word eSpeak
/// speaks nothing for gets the sample where the audio around it puts it. Knowing the end of a
/// word's audio takes the next eSpeak word or clause end, so audio and events after the last
/// eSpeak word seen are held back until then (eSpeak synthesises a clause much faster than it
/// sounds).
///
/// Not thread-safe: fed and drained on the synthesis thread.
class SentenceStream {
 public:
  /// `markup` must outlive the stream.
  explicit SentenceStream(const EspeakMarkup& markup);

  /// Appends eSpeak's next mono samples.
  void addAudio(const short* samples, std::size_t count);
  /// eSpeak's word event at eSpeak text position `espeakPosition` (1-based, in the markup).
  void addWord(int espeakPosition, long long sample);
  /// A mark of the markup, numbered `value`.
  void addMarker(int value, int espeakPosition, long long sample);
  /// The start of a sentence as eSpeak sees it (reported as TTS_EVENT_SENTENCE).
  void addSentence(int espeakPosition, long long sample);
  /// The end of a clause.
  void addClauseEnd(int espeakPosition, long long sample);
  /// The synthesis is complete: every remaining word is placed.
  void finish();

  /// Hands out every event whose place in the stream is settled, with the audio before it,
  /// and then the audio up to the earliest place an event still to come can take; after
  /// finish(), everything. False when the sink ended the sentence.
  bool release(StreamSink& sink);

  /// Samples handed out so far.
  long long releasedSamples() const { return released; }
  /// Samples received so far.
  long long receivedSamples() const { return received; }

 private:
  struct Pending {
    StreamEvent event;
    int textIndex;
    int order;  // markers and sentences before the word that starts at their index
    long long sequence;
  };
  struct Mark {
    int textIndex;
    long long sample;
    long long sequence;  // of its pending event
  };

  int tagFreeIndex(int espeakPosition) const;
  // Places every unplaced word that starts before `limitIndex`, `limitSample` being the end of
  // the audio of the current eSpeak word when it is still open; `clauseEnds` when that end is
  // the end of a clause (or of the sentence) rather than eSpeak's next word.
  void placeWordsBefore(int limitIndex, long long limitSample, bool clauseEnds);
  void addPending(ZR::TextToSpeechEngineEvent type, int value, long long sample, int textIndex,
                  int order);
  long long earliestUnsettled() const;
  // The end of the sound of the current eSpeak word when its audio ends at `end`: without the
  // silence before `end`.
  long long audibleEnd(long long end) const;

  const EspeakMarkup& markup;
  std::vector<short> held;  // samples from `released` on
  long long released = 0;   // sample of held[0]
  long long received = 0;
  std::vector<Pending> pending;
  long long sequence = 0;
  std::size_t nextToken = 0;  // the first word not placed yet
  std::size_t nextMark = 0;   // the first mark of the markup not reported yet
  long long lastWordSample = 0;
  // The eSpeak word whose audio the next words may fall in.
  bool hasAnchor = false;
  int anchorIndex = -1;
  long long anchorSample = 0;
  std::vector<Mark> anchorMarks;  // marks reported since the anchor
  // A clause end after the anchor closes the anchor's audio.
  bool closed = false;
  int closeIndex = 0;
  long long closeSample = 0;
  bool finished = false;
};

}  // namespace detail
}  // namespace engine
}  // namespace bexko
