<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ru_RU" sourcelanguage="en_US">
<context>
    <name>global</name>
    <message>
        <source>%1 is ready.</source>
        <translation>Приложение %1 готово к работе.</translation>
    </message>
    <message>
        <source>Corvane Quarn Client</source>
        <translation>Corvane Quarn Client</translation>
    </message>
    <message>
        <source>%1 is initializing...</source>
        <translation>Инициализация приложения %1...</translation>
    </message>
</context>
</TS>
