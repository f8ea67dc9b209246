       IDENTIFICATION DIVISION.
       PROGRAM-ID. PAYROLL.
      * Computes the weekly pay of one employee.
       DATA DIVISION.
       WORKING-STORAGE SECTION.
       01 WS-HOURS       PIC 9(3)V9 VALUE 40.0.
       01 WS-RATE        PIC 9(3)V99 VALUE 21.50.
       01 WS-PAY         PIC 9(5)V99.
       PROCEDURE DIVISION.
           COMPUTE WS-PAY = WS-HOURS * WS-RATE
           IF WS-PAY > 1000
               DISPLAY "HIGH PAY " WS-PAY
           ELSE
               DISPLAY "PAY " WS-PAY
           END-IF
           STOP RUN.
