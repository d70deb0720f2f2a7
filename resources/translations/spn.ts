<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="es_ES" sourcelanguage="en_US">
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>%1 está listo.</translation>
    </message>
    <message>
        <source>Corvane Quarn Client</source>
        <translation>Corvane Quarn Client</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>Inicializando %1...</translation>
    </message>
</context>
</TS>
