// The simulator's product catalogue: the futures products of the four
// domestic exchanges with their contract months, multipliers, price ticks
// and typical prices, and the listing of concrete contracts (cu2501,
// SR501, IF2412, ...) for a given trading day.
#ifndef QXSIM_CATALOG_H
#define QXSIM_CATALOG_H

#include <cstdint>
#include <string>
#include <vector>

namespace qxsim {

enum class Exchange : int { SHFE = 0, DCE = 1, CZCE = 2, CFFEX = 3 };
constexpr int kExchangeCount = 4;

const char* ExchangeCode(Exchange e);
// Back-end market id of an exchange: 2001, 2101, 2201, 2301 for the plain
// feed, ten more (2011, ...) for the deep feed.
uint16_t MarketIdOf(Exchange e, bool deepFeed);

enum class MonthRule {
    Every,        // every calendar month
    Odd,          // 1, 3, 5, 7, 9, 11
    Mask,         // the months in `months`
    IndexFuture,  // this month, next month and the next two quarter months
    BondFuture,   // the next three quarter months
};

struct Product {
    const char* code;       // "cu", "SR", "IF"
    const char* name;       // display name, UTF-8
    Exchange exchange;
    int multiple;           // volume multiple
    int tickRaw;            // price tick in raw units
    int decimals;           // raw price = price * 10^decimals
    double price;           // typical price level
    double limitRate;       // daily price limit as a fraction of the settlement
    double activity;        // relative trading activity
    MonthRule rule;
    unsigned months;        // bit m-1 for month m, with MonthRule::Mask
};

const std::vector<Product>& Products();

// One listed contract of a product.
struct Contract {
    const Product* product;
    std::string code;       // "cu2501"; CZCE writes the year with one digit: "SR501"
    std::string name;       // UTF-8 display name, "沪铜2501"
    int year;               // delivery year and month
    int month;
    int rank;               // 0 for the nearest listed month of the product
    uint32_t listDate;      // YYYYMMDD
    uint32_t expireDate;
    uint32_t deliveryStart;
    uint32_t deliveryEnd;
};

// Up to `count` contracts listed on `tradingDay` (YYYYMMDD), taking the
// nearest months of every product first, ordered by exchange and code.
std::vector<Contract> ListContracts(uint32_t tradingDay, int count);

// Calendar helpers on YYYYMMDD numbers.
uint32_t AddDays(uint32_t ymd, int days);
int Weekday(uint32_t ymd);                  // 0 Sunday ... 6 Saturday
uint32_t NextBusinessDay(uint32_t ymd);     // the next Monday-Friday after ymd
uint32_t BusinessDayOnOrAfter(uint32_t ymd);

// UTF-8 text in GBK, as the quote server writes names; the text itself
// when it cannot be converted.
std::string Utf8ToGbk(const std::string& text);
// GBK text in UTF-8 (names read back from a recording).
std::string GbkToUtf8(const std::string& text);

}  // namespace qxsim

#endif
