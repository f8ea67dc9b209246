package example.store;

import java.util.HashMap;
import java.util.Map;
import java.util.Optional;

public final class Inventory {
    private final Map<String, Integer> counts = new HashMap<>();

    public void add(String item, int count) {
        if (count <= 0) {
            throw new IllegalArgumentException("count must be positive");
        }
        counts.merge(item, count, Integer::sum);
    }

    public Optional<Integer> countOf(String item) {
        return Optional.ofNullable(counts.get(item));
    }

    @Override
    public String toString() {
        return "Inventory" + counts;
    }

    public static void main(String[] args) {
        Inventory inventory = new Inventory();
        inventory.add("apple", 3);
        System.out.println(inventory.countOf("apple").orElse(0));
    }
}
