using System;
using System.Collections.Generic;
using System.Linq;

namespace Bank
{
    public sealed class Account
    {
        private readonly List<decimal> entries = new List<decimal>();

        public string Owner { get; init; }

        public decimal Balance => entries.Sum();

        public void Deposit(decimal amount)
        {
            if (amount <= 0) throw new ArgumentOutOfRangeException(nameof(amount));
            entries.Add(amount);
        }

        public override string ToString() => $"{Owner}: {Balance:C}";
    }

    internal static class Program
    {
        private static void Main(string[] args)
        {
            var account = new Account { Owner = "Ann" };
            account.Deposit(12.5m);
            Console.WriteLine(account);
        }
    }
}
