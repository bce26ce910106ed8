// libOrvexMdReplay: the market-data interface fed from a tick journal.
//
// CreateWiraReplayApi returns an object with the interface of
// COrvexWiraMdApi whose callbacks replay a journal that md-record wrote,
// so a strategy runs on live data or on a recording by changing only the
// factory it calls:
//
//   COrvexWiraMdApi* api = CreateWiraReplayApi("ticks/20250102.mdj", 0.0);
//   api->RegisterSpi(&spi);
//   api->RegisterFront(front);   // accepted; nothing is connected
//   api->Init();                 // the replay starts: OnFrontLinked, ...
//   api->Join();                 // returns at the end of the journal
//   api->Release();
//
// journal: a journal file, or a directory of them (replayed in trading-day
//   order).
// speed: 0 replays as fast as the callbacks return; otherwise at the
//   recorded pace divided by speed (1: as recorded, 10: ten times faster).
//   The pace restarts with each file, so the night between two recorded days
//   is not waited for.
//
// The callbacks come in the recorded order, on one thread of the library:
// - OnFrontLinked and OnFrontLost as recorded.
// - OnLoginAnswer as recorded, when the application has called
//   ReqUserLogin since the last OnFrontLinked, with its request id.
// - OnDepthMarketData: every recorded depth record until the first call of
//   SubscribeMarketData; from then on only the subscribed ones
//   ("CODE.EXCHANGE", "EXCHANGE" or "CODE", as live; UnSubscribeMarketData
//   removes). OnStatusChange and OnTemplateData as recorded.
// - ReqQryInstrument is answered from the recorded instrument answers
//   (narrowed by ExchangeID) between two replayed callbacks; when none
//   match, with the error answer of an unknown exchange (ErrorID 1).
// GetTradingDay gives the trading day of the last login answer replayed.
// Release stops at once, also in the middle of a paced wait.
//
// Returns null when the journal cannot be read; the reason is written to
// standard error.
#ifndef ORVEX_WIRA_MD_REPLAY_H
#define ORVEX_WIRA_MD_REPLAY_H

#include "OrvexWiraMdApi.h"

extern "C" ORVEX_MD_API_EXPORT COrvexWiraMdApi* CreateWiraReplayApi(const char* journal, double speed);

#endif
