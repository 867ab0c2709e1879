// The trace codes and judgements of the transaction commands that both the
// one-by-one exchange and the pipelined group use.
#pragma once

#include "smtp/smtp.h"

namespace kemail::smtp {

// Kept: a refused sender is traced (smtp0160) at level 2, not 0 (dialogue
// smtp-mail-refused-sender-gives-minus-22).
inline constexpr ExchangeCodes kMailFrom{.not_sent = "smtp0145",
                                         .sent = "smtp0148",
                                         .no_reply = "smtp0150",
                                         .reply = "smtp0155",
                                         .expect = '2',
                                         .refused = "smtp0160",
                                         .refused_level = 2,
                                         .refused_result = kMailRefused};
inline constexpr ExchangeCodes kRcptTo{.not_sent = "smtp0165",
                                       .sent = "smtp0167",
                                       .no_reply = "smtp0170",
                                       .reply = "smtp0185",
                                       .expect = '2',
                                       .refused = "smtp0190",
                                       .refused_result = kRcptRefused};
// Kept: the sent trace carries the command and its NUL (dialogue
// smtp-data-answered-250-gives-minus-24).
inline constexpr ExchangeCodes kData{.not_sent = "smtp0205",
                                     .sent = "smtp0208",
                                     .sent_length = 7,
                                     .no_reply = "smtp0210",
                                     .reply = "smtp0215",
                                     .expect = '3',
                                     .accepted = "smtp02FF",
                                     .refused = "smtp0220",
                                     .refused_word = true,
                                     .refused_result = kDataRefused};
// Kept: the mark's sent trace is written at level 0 and carries the mark and
// its NUL (test Transaction.TheStagedFileGoesOutAsItIsAndTheMarkEndsIt).
inline constexpr ExchangeCodes kEndOfData{.not_sent = "smtp0405",
                                          .sent = "smtp0408",
                                          .sent_level = 0,
                                          .sent_length = 6,
                                          .no_reply = "smtp0410",
                                          .reply = "smtp0415",
                                          .expect = '2',
                                          .accepted = "smtp04FF",
                                          .refused = "smtp0420",
                                          .refused_word = true,
                                          .refused_result = kMessageRefused};
// Keeps the current phase's time-out; only the clock restarts.
inline constexpr ExchangeCodes kRset{.restarts_clock = true,
                                     .not_sent = "RSET0005",
                                     .no_reply = "RSET0010",
                                     .reply = "RSET0015",
                                     .expect = '2',
                                     .accepted = "RSETFFFF",
                                     .refused = "RSET0020",
                                     .refused_result = kRsetRefused};
}  // namespace kemail::smtp
