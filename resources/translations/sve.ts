<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="sv_SE" sourcelanguage="en_US">
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>%1 är klar.</translation>
    </message>
    <message>
        <source>Corvane Quarn Client</source>
        <translation>Corvane Quarn Client</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>%1 initieras...</translation>
    </message>
</context>
</TS>
