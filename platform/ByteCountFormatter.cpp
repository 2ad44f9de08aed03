#include "ByteCountFormatter.h"

#include <limits>

QString ByteCountFormatter::stringFromByteCount(std::uint64_t bytes, const QLocale& locale)
{
    constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<qint64>::max());
    const auto count = static_cast<qint64>(bytes > largest ? largest : bytes);
    return locale.formattedDataSize(count, 1, QLocale::DataSizeSIFormat);
}
