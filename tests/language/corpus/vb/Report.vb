Imports System.IO

Module Report
    Sub Main()
        Dim total As Integer = 0
        For Each line As String In File.ReadAllLines("numbers.txt")
            Dim value As Integer
            If Integer.TryParse(line, value) Then
                total += value
            End If
        Next
        Console.WriteLine("Total: " & total)
    End Sub

    Private Function Double(ByVal x As Integer) As Integer
        Return x * 2
    End Function
End Module
