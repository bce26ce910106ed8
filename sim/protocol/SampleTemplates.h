// The package templates of the template packages qxdc-sim sends: the text
// of the ./qxdctrans.xml an application puts beside itself to receive them
// (qxdc-sim --write-templates FILE writes it).
#ifndef QXSIM_SAMPLE_TEMPLATES_H
#define QXSIM_SAMPLE_TEMPLATES_H

namespace qxsim {

constexpr unsigned short kExchangeIndexPackage = 901;

inline const char* SampleTemplates() {
    return R"XML(<?xml version="1.0" encoding="UTF-8"?>
<!--
  Package templates of the template packages qxdc-sim sends (qxdc-sim
  writes this file when given write-templates FILE). Put it beside the
  application as ./qxdctrans.xml: the library reads it when the API object
  is created and hands each package with a template to OnTemplateData as
  the flat record laid out below.

  901 ExchangeIndex, one per market about once a second while it trades:
    Market      the market id; in the record, the market's exchange code
    IndexValue  an index of the market's contracts, last over previous
                close, in hundredths of a point (100000: 1000.00, unchanged);
                in the record a double
    UpdateTime  HHMMSS of the market's latest quote
    Contracts   contracts in the index
    Top         the three most traded contracts: code and volume
  Record layout (no padding): Market at 0 (9 bytes), IndexValue at 9 (8),
  UpdateTime at 17 (4), Contracts at 21 (4), Top at 25: 3 rows of 25 bytes
  (Instrument 21 bytes, Volume 4); 100 bytes in all.
-->
<qxpackets>
  <qxpacket id="901" name="ExchangeIndex" version="1.0" mask="1">
    <int16 id="11" name="Market" comment="market id, shown as the exchange code"/>
    <int32 id="1" name="IndexValue" price="1" comment="hundredths of a point"/>
    <int32 id="2" name="UpdateTime" comment="HHMMSS"/>
    <int32 id="3" name="Contracts" comment="contracts in the index"/>
    <array name="Top" mask="1" maxsize="3">
      <string id="20" name="Instrument" maxlen="20" comment="contract code"/>
      <int32 id="21" name="Volume" comment="lots traded today"/>
    </array>
  </qxpacket>
</qxpackets>
)XML";
}

}  // namespace qxsim

#endif
