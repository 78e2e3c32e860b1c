#pragma once

#include "history/TranscriptRecord.h"

#include <QByteArrayView>

#include <optional>

namespace dictora::JournalLineDecoder {

// Decodes a line only when it is in exactly the form the journal writes (keys
// sorted, no spaces, no nulls, integers of at most 15 digits, well-formed
// UTF-8). Anything else gives nullopt, meaning "not sure", never "corrupt":
// the caller then asks the general decoder. Whatever this returns is what
// TranscriptRecord::fromJson returns for the same bytes.
std::optional<TranscriptRecord> decodeCanonical(QByteArrayView line);

// The canonical decoder with the general one behind it: the journal's reader.
std::optional<TranscriptRecord> decode(QByteArrayView line);

} // namespace dictora::JournalLineDecoder
