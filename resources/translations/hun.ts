<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="hu_HU" sourcelanguage="en_US">
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>A(z) %1 használatra kész.</translation>
    </message>
    <message>
        <source>Corvane Quarn Client</source>
        <translation>Corvane Quarn Client</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>A(z) %1 inicializálása folyamatban...</translation>
    </message>
</context>
</TS>
