// The template table of the decoder fuzz target, also a seed of the XML
// targets: every field type, arrays with and without row masks, packages
// with and without a mask, price fields, the id-11 field, a text without
// room, a tag of no known type, an empty package and a repeated id.
#ifndef ORVEX_FUZZ_DECODER_TEMPLATES_H
#define ORVEX_FUZZ_DECODER_TEMPLATES_H

namespace orvex_fuzz {

// Package ids 1-5; the first two bytes of a body select one.
inline const char kDecoderTemplates[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<qxpackets>
  <qxpacket id="1" name="AllTypes" version="1.0" mask="0">
    <int8 id="1" name="i8"/><int16 id="2" name="i16"/><int32 id="3" name="i32"/>
    <float id="4" name="f"/><double id="5" name="d"/>
    <string id="6" name="s" maxlen="8"/><wstring id="7" name="w" charset="unicode" maxlen="8"/>
    <int32 id="8" name="price" price="1"/><int32 id="11" name="time"/>
    <string id="9" name="empty" maxlen="0"/><text id="10" name="dflt"/>
  </qxpacket>
  <qxpacket id="2" name="Masked">
    <int8 id="20"/><int16 id="21"/>
    <array maxsize="4"><int16 id="40"/><double id="41"/><string id="42" maxlen="5"/></array>
    <int32 id="22" price="1"/><float id="23"/><double id="24"/><int8 id="25"/>
    <int8 id="26"/><int8 id="27"/><string id="28" maxlen="3"/><wstring id="29" charset="unicode" maxlen="4"/>
    <array mask="0" maxsize="2"><int32 id="50"/><int32 id="51" price="1"/></array>
  </qxpacket>
  <qxpacket id="3" name="Arrays" mask="0">
    <array maxsize="3">
      <int8 id="60"/><int16 id="61"/><int32 id="62"/><float id="63"/><double id="64"/>
      <string id="65" maxlen="6"/><wstring id="66" charset="unicode" maxlen="6"/>
      <int32 id="11"/><double id="67" price="1"/>
    </array>
    <array mask="0" maxsize="1"><wstring id="70" charset="unicode" maxlen="2"/><string id="71" maxlen="1"/></array>
  </qxpacket>
  <qxpacket id="4" name="Wide" mask="1">
    <double id="11"/><string id="12" maxlen="200" price="1"/><wstring id="13" charset="unicode" maxlen="40"/>
    <array maxsize="0"><int8 id="80"/></array><array maxsize="2"/>
  </qxpacket>
  <qxpacket id="5" name="Empty"/>
  <qxpacket id="1" name="NeverUsed"><int8 id="99"/></qxpacket>
</qxpackets>
)";

}  // namespace orvex_fuzz

#endif
