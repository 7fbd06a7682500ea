#include "sentencestream.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <tuple>

namespace bexko {
namespace engine {
namespace detail {

namespace {

// Audio goes out in pieces of at most this many samples (46 ms), as eSpeak's own blocks do, so
// that a paced sentence is never far ahead of the clock.
constexpr std::size_t kLargestPiece = 1024;

bool isBlank(char32_t c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == 0xA0; }

// Samples at most this loud (about -42 dBFS) are the silence after a clause.
constexpr short kSilence = 256;

}  // namespace

SentenceStream::SentenceStream(const EspeakMarkup& markup) : markup(markup) {}

int SentenceStream::tagFreeIndex(int espeakPosition) const {
  const int index = markup.toTagFreeIndex(espeakPosition);
  return index < 0 ? static_cast<int>(markup.tagFree.size()) : index;
}

void SentenceStream::addAudio(const short* samples, std::size_t count) {
  held.insert(held.end(), samples, samples + count);
  received += static_cast<long long>(count);
}

void SentenceStream::addWord(int espeakPosition, long long sample) {
  int index = markup.toTagFreeIndex(espeakPosition);
  if (index < 0) return;
  const int size = static_cast<int>(markup.tagFree.size());
  // After a full stop that does not end the sentence (a lower-case word follows), eSpeak NG
  // reports the next word on the space before it.
  while (index < size && isBlank(markup.tagFree[index])) ++index;
  // It also reports words on the punctuation next to some markup: not a word of its own.
  if (!markup.startsWord(index)) return;
  if (hasAnchor && index <= anchorIndex) return;
  sample = std::max(sample, lastWordSample);
  placeWordsBefore(index, sample, false);
  hasAnchor = true;
  anchorIndex = index;
  anchorSample = sample;
  anchorMarks.clear();
  closed = false;
  if (nextToken < markup.tokens.size() && markup.tokens[nextToken].begin == index) {
    addPending(ZR::TTS_EVENT_WORD, index, sample, index, 1);
    lastWordSample = sample;
    ++nextToken;
  }
}

void SentenceStream::addMarker(int value, int espeakPosition, long long sample) {
  int index = tagFreeIndex(espeakPosition);
  // eSpeak NG gives marks no text position: the markup knows where each one stands.
  for (std::size_t i = nextMark; i < markup.marks.size(); ++i) {
    if (markup.marks[i].value == value) {
      index = markup.marks[i].index;
      nextMark = i + 1;
      break;
    }
  }
  addPending(ZR::TTS_EVENT_MARKER, value, sample, index, 0);
  anchorMarks.push_back(Mark{index, sample, sequence - 1});
}

void SentenceStream::addSentence(int espeakPosition, long long sample) {
  const int index = markup.toTagFreeIndex(espeakPosition);
  addPending(ZR::TTS_EVENT_SENTENCE, std::max(0, index), sample, std::max(0, index), 0);
}

void SentenceStream::addClauseEnd(int espeakPosition, long long sample) {
  if (!hasAnchor || closed) return;
  // The clause's text ends where eSpeak reports its end; the word it started on belongs to it
  // whatever that position says.
  const int end = std::max(tagFreeIndex(espeakPosition), anchorIndex + 1);
  sample = std::max(sample, anchorSample);
  placeWordsBefore(end, audibleEnd(sample), true);
  closed = true;
  closeIndex = end;
  closeSample = sample;
}

void SentenceStream::finish() {
  placeWordsBefore(std::numeric_limits<int>::max(), audibleEnd(received), true);
  finished = true;
}

long long SentenceStream::audibleEnd(long long end) const {
  // Words folded into the last word of a clause are placed in its sound, not in the pause
  // after it.
  if (!hasAnchor || closed) return end;
  long long last = std::min(end, received);
  while (last > anchorSample && last > released &&
         std::abs(held[static_cast<std::size_t>(last - 1 - released)]) <= kSilence) {
    --last;
  }
  return last > anchorSample ? last : end;
}

void SentenceStream::placeWordsBefore(int limitIndex, long long limitSample, bool clauseEnds) {
  const int textEnd = static_cast<int>(markup.tagFree.size());
  while (nextToken < markup.tokens.size() && markup.tokens[nextToken].begin < limitIndex) {
    const int begin = markup.tokens[nextToken].begin;
    long long lower;
    long long sample;
    // The end of the audio the word is placed in, when it is placed by proportion.
    long long spanAudioEnd = -1;
    if (!hasAnchor) {
      // Before eSpeak's first word: where the audio starts.
      lower = lastWordSample;
      sample = lower;
    } else if (closed && begin >= closeIndex) {
      // Between a clause end and eSpeak's next word: at the clause end.
      lower = closeSample;
      sample = lower;
    } else {
      // Inside the audio of the eSpeak word that covers it, in proportion to characters.
      const int spanEnd = closed ? closeIndex : std::min(limitIndex, textEnd);
      const long long audioEnd = closed ? closeSample : limitSample;
      lower = anchorSample;
      sample = anchorSample + (audioEnd - anchorSample) * (begin - anchorIndex) /
                                  std::max(1, spanEnd - anchorIndex);
      if (closed || clauseEnds) spanAudioEnd = audioEnd;
    }
    // A mark between two words stays between them.
    for (Mark& mark : anchorMarks) {
      if (begin < mark.textIndex) {
        sample = std::min(sample, mark.sample);
      } else if (spanAudioEnd >= 0 && mark.sample > sample && mark.textIndex > anchorIndex &&
                 mark.sample >= spanAudioEnd - (spanAudioEnd - anchorSample) / 10) {
        // eSpeak NG reports a mark inside the last word of a clause that it reads as one with
        // the word before ("for a \mrk=1\ while.") at the end of the clause, in the last tenth
        // of that word's sound: the mark moves back to the onset of the word after it, rather
        // than that word to the end of the sound.
        mark.sample = sample;
        for (Pending& entry : pending) {
          if (entry.sequence == mark.sequence) entry.event.sample = sample;
        }
      } else {
        sample = std::max(sample, mark.sample);
      }
    }
    sample = std::max(std::min(sample, std::max(limitSample, lower)), lower);
    sample = std::max(sample, lastWordSample);
    addPending(ZR::TTS_EVENT_WORD, begin, sample, begin, 1);
    lastWordSample = sample;
    ++nextToken;
  }
}

void SentenceStream::addPending(ZR::TextToSpeechEngineEvent type, int value, long long sample,
                                int textIndex, int order) {
  pending.push_back(Pending{StreamEvent{type, value, sample}, textIndex, order, sequence++});
}

long long SentenceStream::earliestUnsettled() const {
  if (finished) return received;
  long long earliest = received;
  if (nextToken < markup.tokens.size()) {
    // The words still to be placed go no earlier than the audio they will be placed in.
    const long long lower = !hasAnchor ? lastWordSample : closed ? closeSample : anchorSample;
    earliest = std::min(earliest, lower);
  }
  return earliest;
}

bool SentenceStream::release(StreamSink& sink) {
  const long long settled = earliestUnsettled();
  std::stable_sort(pending.begin(), pending.end(), [](const Pending& a, const Pending& b) {
    return std::tie(a.event.sample, a.textIndex, a.order, a.sequence) <
           std::tie(b.event.sample, b.textIndex, b.order, b.sequence);
  });
  // held[0] is sample `base`; what is sent is dropped from `held` once, at the end.
  const long long base = released;
  const auto sendAudioUpTo = [&](long long end) {
    while (released < end) {
      const std::size_t count =
          static_cast<std::size_t>(std::min<long long>(end - released, kLargestPiece));
      const long long first = released;
      released += static_cast<long long>(count);
      if (!sink.audio(held.data() + (first - base), count, first)) return false;
    }
    return true;
  };
  std::size_t sent = 0;
  for (; sent < pending.size(); ++sent) {
    StreamEvent event = pending[sent].event;
    event.sample = std::min(std::max(event.sample, released), received);
    if (!finished && event.sample >= settled) break;
    if (!sendAudioUpTo(event.sample)) return false;
    if (!sink.event(event)) return false;
  }
  pending.erase(pending.begin(), pending.begin() + static_cast<long>(sent));
  const bool more = sendAudioUpTo(settled);
  held.erase(held.begin(), held.begin() + static_cast<long>(released - base));
  return more;
}

}  // namespace detail
}  // namespace engine
}  // namespace bexko
