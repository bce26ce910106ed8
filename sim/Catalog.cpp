#include "Catalog.h"

#include <iconv.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace qxsim {

namespace {

constexpr unsigned M(std::initializer_list<int> months) {
    unsigned mask = 0;
    for (int m : months) mask |= 1u << (m - 1);
    return mask;
}

const unsigned kMeal = M({1, 3, 5, 7, 8, 9, 11, 12});
const unsigned kRapeseedMeal = M({1, 3, 5, 7, 8, 9, 11});
const unsigned kRubber = M({1, 3, 4, 5, 6, 7, 8, 9, 10, 11});
const unsigned kApple = M({1, 3, 4, 5, 10, 11, 12});
const unsigned kDates = M({1, 3, 5, 7, 9, 12});
const unsigned kPeanut = M({1, 3, 4, 10, 11, 12});

using R = MonthRule;
constexpr Exchange SHFE = Exchange::SHFE;
constexpr Exchange DCE = Exchange::DCE;
constexpr Exchange CZCE = Exchange::CZCE;
constexpr Exchange CFFEX = Exchange::CFFEX;

// code, name, exchange, multiple, tick (raw), decimals, price, limit, activity, months
const std::vector<Product> kProducts = {
    {"cu", "沪铜", SHFE, 5, 10, 0, 74210, 0.07, 1.0, R::Every, 0},
    {"al", "沪铝", SHFE, 5, 5, 0, 19820, 0.07, 0.8, R::Every, 0},
    {"zn", "沪锌", SHFE, 5, 5, 0, 24515, 0.07, 0.6, R::Every, 0},
    {"pb", "沪铅", SHFE, 5, 5, 0, 17180, 0.07, 0.3, R::Every, 0},
    {"ni", "沪镍", SHFE, 1, 10, 0, 128350, 0.10, 0.7, R::Every, 0},
    {"sn", "沪锡", SHFE, 1, 10, 0, 251600, 0.10, 0.4, R::Every, 0},
    {"au", "沪金", SHFE, 1000, 2, 2, 612.48, 0.08, 0.9, R::Every, 0},
    {"ag", "沪银", SHFE, 15, 1, 0, 7652, 0.09, 1.0, R::Every, 0},
    {"rb", "螺纹钢", SHFE, 10, 1, 0, 3452, 0.07, 1.5, R::Every, 0},
    {"hc", "热轧卷板", SHFE, 10, 1, 0, 3581, 0.07, 0.9, R::Every, 0},
    {"ss", "不锈钢", SHFE, 5, 5, 0, 13455, 0.07, 0.4, R::Every, 0},
    {"bu", "沥青", SHFE, 10, 1, 0, 3520, 0.08, 0.5, R::Every, 0},
    {"ru", "橡胶", SHFE, 10, 5, 0, 17495, 0.08, 0.7, R::Mask, kRubber},
    {"fu", "燃料油", SHFE, 10, 1, 0, 3148, 0.08, 0.8, R::Every, 0},
    {"sp", "纸浆", SHFE, 10, 2, 0, 5896, 0.07, 0.5, R::Every, 0},

    {"m", "豆粕", DCE, 10, 1, 0, 2951, 0.07, 1.5, R::Mask, kMeal},
    {"y", "豆油", DCE, 10, 2, 0, 7802, 0.07, 1.0, R::Mask, kMeal},
    {"a", "豆一", DCE, 10, 1, 0, 4153, 0.07, 0.4, R::Odd, 0},
    {"b", "豆二", DCE, 10, 1, 0, 3702, 0.07, 0.3, R::Every, 0},
    {"p", "棕榈油", DCE, 10, 2, 0, 8306, 0.07, 1.1, R::Every, 0},
    {"c", "玉米", DCE, 10, 1, 0, 2248, 0.06, 0.9, R::Odd, 0},
    {"cs", "玉米淀粉", DCE, 10, 1, 0, 2597, 0.06, 0.4, R::Odd, 0},
    {"l", "塑料", DCE, 5, 1, 0, 8154, 0.07, 0.7, R::Every, 0},
    {"v", "PVC", DCE, 5, 1, 0, 5398, 0.07, 0.8, R::Every, 0},
    {"pp", "聚丙烯", DCE, 5, 1, 0, 7451, 0.07, 0.8, R::Every, 0},
    {"eg", "乙二醇", DCE, 10, 1, 0, 4652, 0.08, 0.8, R::Every, 0},
    {"eb", "苯乙烯", DCE, 5, 1, 0, 8598, 0.08, 0.7, R::Every, 0},
    {"pg", "液化石油气", DCE, 20, 1, 0, 4703, 0.08, 0.5, R::Every, 0},
    {"j", "焦炭", DCE, 100, 5, 1, 2050.5, 0.08, 0.7, R::Every, 0},
    {"jm", "焦煤", DCE, 60, 5, 1, 1351.0, 0.08, 0.8, R::Every, 0},
    {"i", "铁矿石", DCE, 100, 5, 1, 790.5, 0.10, 1.3, R::Every, 0},
    {"jd", "鸡蛋", DCE, 10, 1, 0, 3901, 0.07, 0.4, R::Every, 0},
    {"lh", "生猪", DCE, 16, 5, 0, 14805, 0.08, 0.5, R::Odd, 0},

    {"SR", "白糖", CZCE, 10, 1, 0, 5903, 0.07, 1.0, R::Odd, 0},
    {"CF", "棉花", CZCE, 5, 5, 0, 14205, 0.07, 0.9, R::Odd, 0},
    {"TA", "PTA", CZCE, 5, 2, 0, 4902, 0.07, 1.2, R::Every, 0},
    {"MA", "甲醇", CZCE, 10, 1, 0, 2551, 0.07, 1.2, R::Every, 0},
    {"RM", "菜粕", CZCE, 10, 1, 0, 2403, 0.07, 0.9, R::Mask, kRapeseedMeal},
    {"OI", "菜油", CZCE, 10, 1, 0, 8902, 0.07, 0.6, R::Odd, 0},
    {"FG", "玻璃", CZCE, 20, 1, 0, 1302, 0.07, 1.0, R::Every, 0},
    {"SA", "纯碱", CZCE, 20, 1, 0, 1501, 0.07, 1.1, R::Every, 0},
    {"AP", "苹果", CZCE, 10, 1, 0, 7604, 0.07, 0.5, R::Mask, kApple},
    {"UR", "尿素", CZCE, 20, 1, 0, 1852, 0.07, 0.5, R::Every, 0},
    {"SF", "硅铁", CZCE, 5, 2, 0, 6402, 0.07, 0.3, R::Every, 0},
    {"SM", "锰硅", CZCE, 5, 2, 0, 6304, 0.07, 0.3, R::Every, 0},
    {"PF", "短纤", CZCE, 5, 2, 0, 7198, 0.07, 0.3, R::Every, 0},
    {"CJ", "红枣", CZCE, 5, 5, 0, 10805, 0.07, 0.2, R::Mask, kDates},
    {"PK", "花生", CZCE, 5, 2, 0, 8502, 0.07, 0.2, R::Mask, kPeanut},

    {"IF", "沪深300股指", CFFEX, 300, 2, 1, 3915.4, 0.10, 1.4, R::IndexFuture, 0},
    {"IH", "上证50股指", CFFEX, 300, 2, 1, 2710.2, 0.10, 0.8, R::IndexFuture, 0},
    {"IC", "中证500股指", CFFEX, 200, 2, 1, 5620.8, 0.10, 1.0, R::IndexFuture, 0},
    {"IM", "中证1000股指", CFFEX, 200, 2, 1, 6105.6, 0.10, 1.0, R::IndexFuture, 0},
    {"TS", "二年国债", CFFEX, 20000, 2, 3, 101.952, 0.005, 0.4, R::BondFuture, 0},
    {"TF", "五年国债", CFFEX, 10000, 5, 3, 103.885, 0.012, 0.5, R::BondFuture, 0},
    {"T", "十年国债", CFFEX, 10000, 5, 3, 105.420, 0.02, 0.7, R::BondFuture, 0},
    {"TL", "三十年国债", CFFEX, 10000, 1, 2, 113.10, 0.035, 0.4, R::BondFuture, 0},
};

// Days since 1970-01-01 of a civil date, and back.
long DaysFromCivil(int y, unsigned m, unsigned d) {
    y -= m <= 2;
    const long era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<long>(doe) - 719468;
}

uint32_t CivilFromDays(long z) {
    z += 719468;
    const long era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const long y = static_cast<long>(yoe) + era * 400;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    const unsigned d = doy - (153 * mp + 2) / 5 + 1;
    const unsigned m = mp + (mp < 10 ? 3 : -9);
    return static_cast<uint32_t>((y + (m <= 2)) * 10000 + m * 100 + d);
}

long ToDays(uint32_t ymd) { return DaysFromCivil(static_cast<int>(ymd / 10000), ymd / 100 % 100, ymd % 100); }

uint32_t Ymd(int year, int month, int day) { return static_cast<uint32_t>(year * 10000 + month * 100 + day); }

// The n-th given weekday (0 Sunday) of a month.
uint32_t NthWeekday(int year, int month, int weekday, int n) {
    uint32_t first = Ymd(year, month, 1);
    int shift = (weekday - Weekday(first) + 7) % 7;
    return AddDays(first, shift + 7 * (n - 1));
}

bool MonthAllowed(const Product& p, int month) {
    switch (p.rule) {
        case MonthRule::Every: return true;
        case MonthRule::Odd: return month % 2 == 1;
        case MonthRule::Mask: return (p.months >> (month - 1)) & 1u;
        default: return false;
    }
}

uint32_t ExpireDate(const Product& p, int year, int month) {
    switch (p.rule) {
        case MonthRule::IndexFuture: return NthWeekday(year, month, 5, 3);   // third Friday
        case MonthRule::BondFuture: return NthWeekday(year, month, 5, 2);    // second Friday
        default: return BusinessDayOnOrAfter(Ymd(year, month, 15));
    }
}

Contract MakeContract(const Product& p, int year, int month, int rank) {
    Contract c;
    c.product = &p;
    c.year = year;
    c.month = month;
    c.rank = rank;
    char digits[8];
    if (p.exchange == Exchange::CZCE) std::snprintf(digits, sizeof(digits), "%d%02d", year % 10, month);
    else std::snprintf(digits, sizeof(digits), "%02d%02d", year % 100, month);
    c.code = std::string(p.code) + digits;
    std::snprintf(digits, sizeof(digits), "%02d%02d", year % 100, month);
    c.name = std::string(p.name) + digits;
    c.expireDate = ExpireDate(p, year, month);
    c.listDate = BusinessDayOnOrAfter(Ymd(year - 1, month, 16));
    if (p.rule == MonthRule::IndexFuture) c.listDate = BusinessDayOnOrAfter(AddDays(c.expireDate, -240));
    c.deliveryStart = NextBusinessDay(c.expireDate);
    uint32_t end = c.deliveryStart;
    for (int i = 0; i < 4; ++i) end = NextBusinessDay(end);
    c.deliveryEnd = end;
    return c;
}

void NextMonth(int& year, int& month) {
    if (++month > 12) {
        month = 1;
        ++year;
    }
}

std::vector<Contract> ListProduct(const Product& p, uint32_t tradingDay) {
    std::vector<Contract> out;
    int year = static_cast<int>(tradingDay / 10000);
    int month = static_cast<int>(tradingDay / 100 % 100);
    // Start with the current month while it has not expired.
    const Product& ref = p;
    auto listed = [&](int y, int m) { return ExpireDate(ref, y, m) >= tradingDay; };
    if (!listed(year, month)) NextMonth(year, month);

    if (p.rule == MonthRule::IndexFuture) {
        out.push_back(MakeContract(p, year, month, 0));
        NextMonth(year, month);
        out.push_back(MakeContract(p, year, month, 1));
        while (out.size() < 4) {
            NextMonth(year, month);
            if (month % 3 == 0) out.push_back(MakeContract(p, year, month, static_cast<int>(out.size())));
        }
        return out;
    }
    if (p.rule == MonthRule::BondFuture) {
        while (out.size() < 3) {
            if (month % 3 == 0 && listed(year, month))
                out.push_back(MakeContract(p, year, month, static_cast<int>(out.size())));
            NextMonth(year, month);
        }
        return out;
    }
    for (int i = 0; i < 12; ++i) {
        if (MonthAllowed(p, month)) out.push_back(MakeContract(p, year, month, static_cast<int>(out.size())));
        NextMonth(year, month);
    }
    return out;
}

}  // namespace

const char* ExchangeCode(Exchange e) {
    static const char* const kCodes[kExchangeCount] = {"SHFE", "DCE", "CZCE", "CFFEX"};
    return kCodes[static_cast<int>(e)];
}

uint16_t MarketIdOf(Exchange e, bool deepFeed) {
    return static_cast<uint16_t>(2000 + 100 * static_cast<int>(e) + (deepFeed ? 11 : 1));
}

const std::vector<Product>& Products() { return kProducts; }

std::vector<Contract> ListContracts(uint32_t tradingDay, int count) {
    std::vector<std::vector<Contract>> perProduct;
    size_t deepest = 0;
    for (const Product& p : kProducts) {
        perProduct.push_back(ListProduct(p, tradingDay));
        deepest = std::max(deepest, perProduct.back().size());
    }
    std::vector<Contract> out;
    for (size_t rank = 0; rank < deepest && static_cast<int>(out.size()) < count; ++rank) {
        for (const std::vector<Contract>& listed : perProduct) {
            if (rank < listed.size()) out.push_back(listed[rank]);
            if (static_cast<int>(out.size()) >= count) break;
        }
    }
    std::stable_sort(out.begin(), out.end(), [](const Contract& a, const Contract& b) {
        if (a.product->exchange != b.product->exchange) return a.product->exchange < b.product->exchange;
        return a.code < b.code;
    });
    return out;
}

uint32_t AddDays(uint32_t ymd, int days) { return CivilFromDays(ToDays(ymd) + days); }

int Weekday(uint32_t ymd) {
    long z = ToDays(ymd);   // 1970-01-01 was a Thursday
    return static_cast<int>(((z % 7) + 11) % 7);
}

uint32_t NextBusinessDay(uint32_t ymd) {
    uint32_t d = AddDays(ymd, 1);
    while (Weekday(d) == 0 || Weekday(d) == 6) d = AddDays(d, 1);
    return d;
}

uint32_t BusinessDayOnOrAfter(uint32_t ymd) {
    return (Weekday(ymd) == 0 || Weekday(ymd) == 6) ? NextBusinessDay(ymd) : ymd;
}

namespace {

// The text in another encoding; the text itself when it cannot be converted.
std::string Convert(const char* to, const char* from, const std::string& text) {
    iconv_t cd = iconv_open(to, from);
    if (cd == reinterpret_cast<iconv_t>(-1)) return text;
    std::string out(text.size() * 2 + 4, '\0');
    char* in = const_cast<char*>(text.data());
    size_t inLeft = text.size();
    char* dst = &out[0];
    size_t outLeft = out.size();
    size_t rc = iconv(cd, &in, &inLeft, &dst, &outLeft);
    iconv_close(cd);
    if (rc == static_cast<size_t>(-1)) return text;
    out.resize(out.size() - outLeft);
    return out;
}

}  // namespace

std::string Utf8ToGbk(const std::string& text) { return Convert("GBK", "UTF-8", text); }

std::string GbkToUtf8(const std::string& text) { return Convert("UTF-8", "GBK", text); }

}  // namespace qxsim
