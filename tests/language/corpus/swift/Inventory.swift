import Foundation

/// Keeps count of the items on each shelf.
struct Inventory {
    private var counts: [String: Int] = [:]

    mutating func add(_ item: String, count: Int = 1) {
        counts[item, default: 0] += count
    }

    func count(of item: String) -> Int {
        guard let value = counts[item] else { return 0 }
        return value
    }
}

fileprivate extension Inventory {
    var isEmpty: Bool { counts.values.allSatisfy { $0 == 0 } }
}

let store = Inventory()
print("Shelf holds \(store.count(of: "apples")) apples")
