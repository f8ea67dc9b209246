const std = @import("std");

pub fn sum(values: []const i32) i64 {
    var total: i64 = 0;
    for (values) |v| {
        total += v;
    }
    return total;
}

test "sum of three" {
    const values = [_]i32{ 1, 2, 3 };
    try std.testing.expectEqual(@as(i64, 6), sum(&values));
}

pub fn main() !void {
    const stdout = std.io.getStdOut().writer();
    const values = [_]i32{ 4, 5, 6 };
    try stdout.print("sum {d}\n", .{sum(&values)});
}
