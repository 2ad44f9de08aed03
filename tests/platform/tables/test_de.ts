<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context>
    <name>Localizable</name>
    <message><source>inBoth</source><translation>Deutsch beide</translation></message>
    <message><source>sentinelInUser</source><translation>__NOT_FOUND__</translation></message>
</context>
<context>
    <name>MainMenu</name>
    <message><source>TestMenu_Pelmora</source><translation>Pelmora (de)</translation></message>
    <message><source>TestMenu_Pelmora_About</source><translation>Über (de)</translation></message>
</context>
</TS>
