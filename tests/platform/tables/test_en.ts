<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en">
<context>
    <name>Localizable</name>
    <message><source>inBoth</source><translation>English both</translation></message>
    <message><source>onlyInDevelopment</source><translation>Development only</translation></message>
    <message><source>sentinelInUser</source><translation>English fallback</translation></message>
</context>
<context>
    <name>MainMenu</name>
    <message><source>TestMenu_Pelmora</source><translation>Pelmora (en)</translation></message>
    <message><source>TestMenu_Pelmora_About</source><translation>About (en)</translation></message>
    <message><source>TestMenu_Untranslated_Item</source><translation>Item (en)</translation></message>
</context>
</TS>
